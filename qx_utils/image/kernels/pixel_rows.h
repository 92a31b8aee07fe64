// The kernels behind colour conversion and scaling of packed pixels: rows of channels.
//
// A kernel's functions are single-threaded and work on one row. They allocate, log and throw
// nothing. All variants are the same source, compiled for different instruction sets, and compute
// in integers: they write the same bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx::utils::image {

// One row of each channel. Those past the number of channels are not used.
struct ChannelRows {
  std::uint8_t* row[4];
};

struct YuvRows {
  const std::uint8_t* y;
  const std::uint8_t* u;
  const std::uint8_t* v;
};
struct RgbRows {
  std::uint8_t* r;
  std::uint8_t* g;
  std::uint8_t* b;
};

// Coefficients of YUV to RGB, with kFromYuvBits fractional bits: as many as leave the largest,
// below 2.2, in 16 bits.
constexpr int kFromYuvBits = 13;
struct FromYuv {
  std::int16_t luma_offset;
  std::int16_t luma;
  std::int16_t red_v;
  std::int16_t green_u;
  std::int16_t green_v;
  std::int16_t blue_u;
};

// Coefficients of RGB to YUV, each for R, G and B. They are below 1.
constexpr int kToYuvBits = 15;
struct ToYuv {
  std::int16_t luma[3];
  std::int16_t u[3];
  std::int16_t v[3];
  std::int16_t luma_offset;
};

// The rows of one call do not overlap, and nothing outside them is read or written.
struct PixelRowsKernel {
  // Channel i of `pixels` packed pixels goes to, or comes from, row[i].
  void (*split3)(const std::uint8_t* packed, std::size_t pixels, const ChannelRows& rows);
  void (*split4)(const std::uint8_t* packed, std::size_t pixels, const ChannelRows& rows);
  void (*merge3)(const ChannelRows& rows, std::size_t pixels, std::uint8_t* packed);
  void (*merge4)(const ChannelRows& rows, std::size_t pixels, std::uint8_t* packed);

  // Rows of pairs taken apart and put together.
  void (*split2)(const std::uint8_t* pairs, std::size_t count, std::uint8_t* first,
                 std::uint8_t* second);
  void (*merge2)(const std::uint8_t* first, const std::uint8_t* second, std::size_t count,
                 std::uint8_t* pairs);

  // Chroma rows have a sample per pixel.
  void (*rgb_from_yuv)(const FromYuv& coefficients, const YuvRows& yuv, std::size_t pixels,
                       const RgbRows& rgb);
  void (*luma_from_rgb)(const ToYuv& coefficients, const RgbRows& rgb, std::size_t pixels,
                        std::uint8_t* luma);
  // Chroma of the mean of 2 x 2 pixels, for `samples` pairs of columns.
  void (*chroma_from_rgb)(const ToYuv& coefficients, const RgbRows& upper, const RgbRows& lower,
                          std::size_t samples, std::uint8_t* u, std::uint8_t* v);
};

struct PixelRowsVariant {
  const char* name;
  std::uint32_t required;  // processor features, see cpu_features.h
  const PixelRowsKernel* kernel;
};

// All variants of this build, best first, `scalar` last.
const PixelRowsVariant* PixelRowsVariants(std::size_t* count);

// The best one that the processor features in use allow.
const PixelRowsKernel& ActivePixelRows();

extern const PixelRowsKernel kPixelRowsScalar;
#if defined(__x86_64__)
extern const PixelRowsKernel kPixelRowsAvx2;
#endif

}  // namespace qx::utils::image
