#include "qx_utils/stereo/options.h"

#include <stdexcept>
#include <string>

#include "qx_utils/stereo/kernels/semi_global.h"

namespace qx::utils::stereo {
namespace {

void CheckBetween(const char* name, long value, long least, long most) {
  if (least <= value && value <= most) return;
  throw std::invalid_argument(std::string(name) + " is " + std::to_string(value) + ", not " +
                              std::to_string(least) + " .. " + std::to_string(most));
}

}  // namespace

void CheckOptions(const StereoOptions& options) {
  CheckBetween("disparities", options.disparities, 1, kMaxDisparities);
  CheckRange(static_cast<std::size_t>(options.disparities), options);
  CheckPaths(options);
}

void CheckRange(std::size_t disparities, const StereoOptions& options) {
  CheckBetween("first_disparity", options.first_disparity, 0, kMaxDisparities - 1);
  CheckBetween("first_disparity + disparities",
               options.first_disparity + static_cast<long>(disparities), 1, kMaxDisparities);
}

void CheckShift(int shift) { CheckBetween("shift", shift, 0, kMaxDisparities - 1); }

void CheckPaths(const StereoOptions& options) {
  CheckBetween("slant_penalty", options.slant_penalty, 0, kMaxSlant);
  CheckBetween("jump_penalty", options.jump_penalty, options.slant_penalty,
               kMaxPenalties - options.slant_penalty);
  if (options.paths != 4 && options.paths != 8) {
    throw std::invalid_argument("paths is " + std::to_string(options.paths) + ", not 4 or 8");
  }
}

}  // namespace qx::utils::stereo
