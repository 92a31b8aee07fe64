// The definition of the median with missing values.
#include <algorithm>

#include "qx_utils/stereo/kernels/disparity_map.h"

namespace qx::utils::stereo {
namespace {

template <std::ptrdiff_t kRadius>
void MedianOfSquares(const std::uint16_t* centre, std::size_t pitch, std::uint16_t* out) {
  const auto row = static_cast<std::ptrdiff_t>(pitch);
  for (std::size_t x = 0; x < kMedianGroup; ++x) {
    std::uint16_t values[(2 * kRadius + 1) * (2 * kRadius + 1)];
    std::uint16_t* end = values;
    for (std::ptrdiff_t dy = -kRadius; dy <= kRadius; ++dy) {
      for (std::ptrdiff_t dx = -kRadius; dx <= kRadius; ++dx) {
        const std::uint16_t value = centre[static_cast<std::ptrdiff_t>(x) + dy * row + dx];
        if (value != kMissing) *end++ = value;
      }
    }
    std::uint16_t* const middle = values + (end - values) / 2;
    std::nth_element(values, middle, end);
    out[x] = end == values ? kMissing : *middle;
  }
}

}  // namespace

const MedianKernel kMedianScalar = {MedianOfSquares<1>, MedianOfSquares<2>};

}  // namespace qx::utils::stereo
