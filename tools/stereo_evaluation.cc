#include "tools/stereo_evaluation.h"

#include <cmath>
#include <stdexcept>
#include <string>

namespace qx::tools {

Errors Evaluate(const DisparityMap& map, const GrayPicture& truth, double scale) {
  if (truth.width != map.width || truth.height != map.height) {
    throw std::runtime_error("the ground truth is " + std::to_string(truth.width) + " x " +
                             std::to_string(truth.height) + ", the pictures are " +
                             std::to_string(map.width) + " x " + std::to_string(map.height));
  }
  std::size_t known = 0, missing = 0, above_1 = 0, above_2 = 0;
  for (std::size_t i = 0; i < map.values.size(); ++i) {
    if (truth.luma[i] == 0) continue;
    const bool absent = map.values[i] == kMissing;
    const double error = std::fabs(map.values[i] - truth.luma[i] / scale);
    ++known;
    missing += absent;
    above_1 += absent || error > 1;
    above_2 += absent || error > 2;
  }
  if (known == 0) throw std::runtime_error("the ground truth has no known disparity");
  const auto share = [known](std::size_t n) {
    return static_cast<double>(n) / static_cast<double>(known);
  };
  return {share(missing), share(above_1), share(above_2)};
}

}  // namespace qx::tools
