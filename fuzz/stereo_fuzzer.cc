// Stereo matching of any pictures and maps with any options.
#include <omp.h>

#include <cstdint>

#include "fuzz/require.h"
#include "qx_utils/stereo/kernels/semi_global.h"
#include "tests/testing/stereo_frames.h"

namespace qx::utils::stereo {
namespace {

using fuzzing::Require;
using FramePtr = testing::StereoFrame;

struct Input {
  FramePtr Frame(QXPixelFormat format, std::size_t channels, std::size_t from) const {
    auto frame = testing::NewFrame(format, height, width, channels);
    for (std::size_t i = 0; i < frame->DataSize(); ++i) {
      frame->Data()[i] = values[(from + i) % count];
    }
    return frame;
  }

  std::size_t width, height, shift;
  const std::uint8_t* values;
  std::size_t count;
};

void CheckResult(const StereoResult& result, const StereoOptions& options) {
  const auto* const disparity = reinterpret_cast<const std::uint16_t*>(result.disparity->Data());
  const auto* const filled = reinterpret_cast<const std::uint16_t*>(result.filled->Data());
  const int last = options.first_disparity + options.disparities - 1;
  for (std::size_t i = 0; i < result.confidence->DataSize(); ++i) {
    Require(filled[i] <= kDisparityUnits * last);
    Require((result.confidence->Data()[i] == 0) == (disparity[i] == kMissingDisparity));
    if (disparity[i] == kMissingDisparity) continue;
    Require(disparity[i] == filled[i] && disparity[i] >= kDisparityUnits * options.first_disparity);
  }
}

}  // namespace

// Input: the size, the options, where the right picture begins and the threads, then the values of
// all pictures and maps over and over.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeader = 8;
  if (size <= kHeader) return 0;
  const Input input{1U + data[0] % 48U, 1U + data[1] % 12U, data[7], data + kHeader,
                    size - kHeader};
  StereoOptions options;
  options.first_disparity = data[2];
  options.disparities = 1 + data[3] % (kMaxDisparities - data[2]);
  options.slant_penalty = data[4] % (kMaxSlant + 1);
  options.jump_penalty =
      options.slant_penalty + data[5] % (kMaxPenalties + 1 - 2 * options.slant_penalty);
  options.paths = data[6] % 2 == 0 ? 8 : 4;
  options.confidence = true;

  const FramePtr left = input.Frame(kQXPixelFormatGray8, 1, 0);
  const FramePtr right = input.Frame(kQXPixelFormatGray8, 1, input.shift);
  StereoMatcher matcher(options);
  omp_set_num_threads(1);
  const StereoResult result = matcher.Match(left, right);
  CheckResult(result, options);
  omp_set_num_threads(1 + data[6] / 2 % 3);
  Require(testing::BytesOf(testing::MatchInSteps(left, right, options)) ==
          testing::BytesOf(result));
  CheckResult(matcher.MatchFeatures(input.Frame(kQXPixelFormatUint8, 64, 0),
                                    input.Frame(kQXPixelFormatUint8, 64, input.shift), left),
              options);
  return 0;
}

}  // namespace qx::utils::stereo
