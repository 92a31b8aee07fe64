#include "qx_utils/stereo/cleaning.h"

#include "qx_utils/stereo/kernel_choice.h"

namespace qx::utils::stereo {
namespace {

constexpr std::size_t kSmallestPatch = 100;  // px; about the area of an 11 x 9 block

// What the kernels' confidence is worth: the share of pixels off by at most 1, times 255, at
// confidence 0, 32, 64 ... 256, measured with the default options; see docs/stereo.md. Between
// them it is interpolated.
constexpr int kStep = 32;
constexpr int kShares[] = {120, 138, 168, 195, 215, 235, 248, 251, 253};

std::uint8_t Probability(int confidence) {
  const int i = confidence / kStep;
  const int further = confidence % kStep;
  return static_cast<std::uint8_t>(
      (kShares[i] * (kStep - further) + kShares[i + 1] * further + kStep / 2) / kStep);
}

}  // namespace

void CleanDisparities(std::size_t width, std::size_t height, DisparityScratch& scratch,
                      std::uint16_t* disparity, std::uint8_t* confidence) {
  MedianFilter(ChosenMedian(), disparity, width, height, 1, scratch, disparity);
  RemoveSpeckles(kSmallestPatch, width, height, scratch, disparity);
  if (confidence == nullptr) return;
  for (std::size_t i = 0; i < width * height; ++i) {
    confidence[i] = disparity[i] == kMissing ? std::uint8_t{0} : Probability(confidence[i]);
  }
}

}  // namespace qx::utils::stereo
