// The definition of the kernels of pixel_rows.h, in loops that compilers turn into vector code.
#pragma once

#include "qx_utils/image/kernels/kernel-inl.h"
#include "qx_utils/image/kernels/pixel_rows.h"

namespace qx::utils::image {
namespace {

// The results of a loop do not alias its inputs, which spares the compiler its checks.
#define QXTOOLS_ALONE __restrict

template <std::size_t kChannels>
void Split(const std::uint8_t* QXTOOLS_ALONE packed, std::size_t pixels, const ChannelRows& rows) {
  std::uint8_t* QXTOOLS_ALONE a = rows.row[0];
  std::uint8_t* QXTOOLS_ALONE b = rows.row[1];
  std::uint8_t* QXTOOLS_ALONE c = rows.row[2];
  std::uint8_t* QXTOOLS_ALONE d = kChannels == 4 ? rows.row[3] : nullptr;
  for (std::size_t x = 0; x < pixels; ++x) {
    a[x] = packed[kChannels * x];
    b[x] = packed[kChannels * x + 1];
    c[x] = packed[kChannels * x + 2];
    if (kChannels == 4) d[x] = packed[kChannels * x + 3];
  }
}

template <std::size_t kChannels>
void Merge(const ChannelRows& rows, std::size_t pixels, std::uint8_t* QXTOOLS_ALONE packed) {
  const std::uint8_t* QXTOOLS_ALONE a = rows.row[0];
  const std::uint8_t* QXTOOLS_ALONE b = rows.row[1];
  const std::uint8_t* QXTOOLS_ALONE c = rows.row[2];
  const std::uint8_t* QXTOOLS_ALONE d = kChannels == 4 ? rows.row[3] : nullptr;
  for (std::size_t x = 0; x < pixels; ++x) {
    packed[kChannels * x] = a[x];
    packed[kChannels * x + 1] = b[x];
    packed[kChannels * x + 2] = c[x];
    if (kChannels == 4) packed[kChannels * x + 3] = d[x];
  }
}

inline void SplitPairs(const std::uint8_t* QXTOOLS_ALONE pairs, std::size_t count,
                       std::uint8_t* QXTOOLS_ALONE first, std::uint8_t* QXTOOLS_ALONE second) {
  for (std::size_t x = 0; x < count; ++x) {
    first[x] = pairs[2 * x];
    second[x] = pairs[2 * x + 1];
  }
}

inline void MergePairs(const std::uint8_t* QXTOOLS_ALONE first,
                       const std::uint8_t* QXTOOLS_ALONE second, std::size_t count,
                       std::uint8_t* QXTOOLS_ALONE pairs) {
  for (std::size_t x = 0; x < count; ++x) {
    pairs[2 * x] = first[x];
    pairs[2 * x + 1] = second[x];
  }
}

QXTOOLS_INLINE std::uint8_t Clip(std::int32_t value) {
  const std::int32_t low = value < 0 ? 0 : value;
  return static_cast<std::uint8_t>(low > 255 ? 255 : low);
}

constexpr std::int32_t Half(int bits) { return std::int32_t{1} << (bits - 1); }

// One channel. Channels have loops of their own, which compilers vectorise.
QXTOOLS_INLINE void ChannelFromYuv(const FromYuv& c, const YuvRows& yuv, std::int16_t by_u,
                                   std::int16_t by_v, std::size_t pixels,
                                   std::uint8_t* QXTOOLS_ALONE out) {
  const std::uint8_t* QXTOOLS_ALONE y = yuv.y;
  const std::uint8_t* QXTOOLS_ALONE u = yuv.u;
  const std::uint8_t* QXTOOLS_ALONE v = yuv.v;
  const std::int16_t by_y = c.luma;
  const std::int32_t offset = Half(kFromYuvBits) - by_y * c.luma_offset - 128 * (by_u + by_v);
  for (std::size_t x = 0; x < pixels; ++x) {
    out[x] = Clip((by_y * y[x] + by_u * u[x] + by_v * v[x] + offset) >> kFromYuvBits);
  }
}

inline void RgbFromYuv(const FromYuv& coefficients, const YuvRows& yuv, std::size_t pixels,
                       const RgbRows& rgb) {
  const FromYuv c = coefficients;
  ChannelFromYuv(c, yuv, 0, c.red_v, pixels, rgb.r);
  ChannelFromYuv(c, yuv, c.green_u, c.green_v, pixels, rgb.g);
  ChannelFromYuv(c, yuv, c.blue_u, 0, pixels, rgb.b);
}

inline void LumaFromRgb(const ToYuv& coefficients, const RgbRows& rgb, std::size_t pixels,
                        std::uint8_t* QXTOOLS_ALONE luma) {
  const ToYuv c = coefficients;
  const std::uint8_t* QXTOOLS_ALONE r = rgb.r;
  const std::uint8_t* QXTOOLS_ALONE g = rgb.g;
  const std::uint8_t* QXTOOLS_ALONE b = rgb.b;
  const std::int32_t offset = c.luma_offset * (1 << kToYuvBits) + Half(kToYuvBits);
  for (std::size_t x = 0; x < pixels; ++x) {
    const std::int32_t sum = c.luma[0] * r[x] + c.luma[1] * g[x] + c.luma[2] * b[x];
    luma[x] = Clip((sum + offset) >> kToYuvBits);
  }
}

// One channel of the sum of 2 x 2 pixels.
QXTOOLS_INLINE std::int32_t Four(const std::uint8_t* above, const std::uint8_t* below,
                                 std::size_t x) {
  return above[2 * x] + above[2 * x + 1] + below[2 * x] + below[2 * x + 1];
}

inline void ChromaFromRgb(const ToYuv& coefficients, const RgbRows& upper, const RgbRows& lower,
                          std::size_t samples, std::uint8_t* QXTOOLS_ALONE u,
                          std::uint8_t* QXTOOLS_ALONE v) {
  const ToYuv c = coefficients;
  const RgbRows above = upper, below = lower;
  constexpr int kBits = kToYuvBits + 2;  // of the sum of four
  constexpr std::int32_t kOffset = 128 * (1 << kBits) + Half(kBits);
  for (std::size_t x = 0; x < samples; ++x) {
    const std::int32_t r = Four(above.r, below.r, x);
    const std::int32_t g = Four(above.g, below.g, x);
    const std::int32_t b = Four(above.b, below.b, x);
    u[x] = Clip((c.u[0] * r + c.u[1] * g + c.u[2] * b + kOffset) >> kBits);
    v[x] = Clip((c.v[0] * r + c.v[1] * g + c.v[2] * b + kOffset) >> kBits);
  }
}

#undef QXTOOLS_ALONE

constexpr PixelRowsKernel MakePixelRows() {
  return {Split<3>,   Split<4>,   Merge<3>,    Merge<4>,     SplitPairs,
          MergePairs, RgbFromYuv, LumaFromRgb, ChromaFromRgb};
}

}  // namespace
}  // namespace qx::utils::image
