// The definition of the feature map, one pixel at a time.
#include <algorithm>
#include <cmath>

#include "qx_utils/stereo/kernels/features.h"

namespace qx::utils::stereo {
namespace {

// The grey value at (x, y), or of the nearest pixel of the picture.
int GreyAt(const GreyView& picture, std::ptrdiff_t x, std::ptrdiff_t y) {
  const auto last_column = static_cast<std::ptrdiff_t>(picture.width) - 1;
  const auto last_row = static_cast<std::ptrdiff_t>(picture.height) - 1;
  const auto column = static_cast<std::size_t>(std::clamp<std::ptrdiff_t>(x, 0, last_column));
  const auto row = static_cast<std::size_t>(std::clamp<std::ptrdiff_t>(y, 0, last_row));
  return picture.data[row * picture.pitch + column];
}

void DescribePixel(const GreyView& picture, std::size_t x, std::size_t y, std::int8_t* feature) {
  int grey[kFeatureChannels];
  int sum = 0;
  int squares = 0;
  for (std::size_t i = 0; i < kFeatureChannels; ++i) {
    const auto [dx, dy] = kFeatureOffsets[i];
    grey[i] =
        GreyAt(picture, static_cast<std::ptrdiff_t>(x) + dx, static_cast<std::ptrdiff_t>(y) + dy);
    sum += grey[i];
    squares += grey[i] * grey[i];
  }
  constexpr auto kCount = static_cast<int>(kFeatureChannels);
  const int spread = kCount * squares - sum * sum + kFeatureNoise;  // below 2^24: exact in float
  const int length = static_cast<int>(kFeatureLength / std::sqrt(static_cast<float>(spread)));
  for (std::size_t i = 0; i < kFeatureChannels; ++i) {
    const int scaled = (4 * (kCount * grey[i] - sum) * length + (1 << 14)) >> 15;
    feature[i] = static_cast<std::int8_t>(std::clamp(scaled, -128, 127));
  }
}

void DescribeRows(const GreyView& picture, std::size_t shift, std::size_t first_row,
                  std::size_t end_row, std::int8_t* map) {
  for (std::size_t y = first_row; y < end_row; ++y) {
    std::int8_t* const row = map + y * picture.width * kFeatureChannels;
    const std::size_t nulls = std::min(shift, picture.width);
    std::fill_n(row, nulls * kFeatureChannels, std::int8_t{0});
    for (std::size_t x = nulls; x < picture.width; ++x) {
      DescribePixel(picture, x - shift, y, row + x * kFeatureChannels);
    }
  }
}

}  // namespace

const FeatureKernel kFeaturesScalar = {DescribeRows};

}  // namespace qx::utils::stereo
