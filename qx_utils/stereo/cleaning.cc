#include "qx_utils/stereo/cleaning.h"

#include "qx_utils/stereo/kernel_choice.h"

namespace qx::utils::stereo {
namespace {

constexpr std::size_t kSmallestPatch = 100;  // px; about the area of an 11 x 9 block

}  // namespace

void CleanDisparities(std::size_t width, std::size_t height, DisparityScratch& scratch,
                      std::uint16_t* disparity, std::uint8_t* confidence) {
  MedianFilter(ChosenMedian(), disparity, width, height, 1, scratch, disparity);
  RemoveSpeckles(kSmallestPatch, width, height, scratch, disparity);
  if (confidence == nullptr) return;
  for (std::size_t i = 0; i < width * height; ++i) {
    if (disparity[i] == kMissing) confidence[i] = 0;
  }
}

}  // namespace qx::utils::stereo
