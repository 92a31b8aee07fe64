// The definition of remapping, one pixel at a time.
#include "qx_utils/stereo/kernels/remap_fetch-inl.h"

namespace qx::utils::stereo {
namespace {

constexpr int kHalf = kRemapUnit / 2;

int Interpolate(const int (&pixels)[4], int fx, int fy) {
  const int above = pixels[0] * (kRemapUnit - fx) + pixels[1] * fx;
  const int below = pixels[2] * (kRemapUnit - fx) + pixels[3] * fx;
  return (above + (((below - above) * fy + kHalf) >> kRemapBits) + kHalf) >> kRemapBits;
}

template <std::size_t kChannels>
void RemapPixel(const RemapView& map, const GreyView& source, std::size_t at,
                std::uint8_t* result) {
  const bool has_source = map.places[at] != kNoSource;
  const auto [x, y] = has_source ? PositionOf(map, at) : Position{-2, -2};
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    const int pixels[4] = {ByteAt<kChannels>(source, x, y, channel),
                           ByteAt<kChannels>(source, x + 1, y, channel),
                           ByteAt<kChannels>(source, x, y + 1, channel),
                           ByteAt<kChannels>(source, x + 1, y + 1, channel)};
    result[channel] = static_cast<std::uint8_t>(Interpolate(pixels, map.fx[at], map.fy[at]));
  }
}

template <std::size_t kChannels>
void Run(const RemapView& map, const GreyView& source, std::size_t first_row, std::size_t end_row,
         std::uint8_t* result) {
  for (std::size_t y = first_row; y < end_row; ++y) {
    for (std::size_t x = 0; x < map.width; ++x) {
      RemapPixel<kChannels>(map, source, y * map.stride + x,
                            result + (y * map.width + x) * kChannels);
    }
  }
}

}  // namespace

const RemapKernel kRemapScalar = {Run<1>, Run<3>};

}  // namespace qx::utils::stereo
