// YUV to RGB and back, row by row, with the formulas of ITU-R BT.601 and its relatives.
//
// With Kr, Kb of the matrix and Kg = 1 - Kr - Kb, R, G, B and Y in 0 .. 1 and U, V in -0.5 .. 0.5:
//   Y = Kr R + Kg G + Kb B,  U = (B - Y) / (2 - 2 Kb),  V = (R - Y) / (2 - 2 Kr).
// Full range stores 255 Y and 255 U + 128, the other one 219 Y + 16 and 224 U + 128. Results are
// clipped to 0 .. 255 and rounded to nearest; the coefficients' own rounding moves a value by less
// than 0.1 before that.
#pragma once

#include <cstdint>

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// Coefficients with a fixed number of fractional bits, see yuv_rows.cc.
struct FromYuv {
  std::int16_t luma_offset;
  std::int16_t luma;
  std::int16_t red_v;
  std::int16_t green_u;
  std::int16_t green_v;
  std::int16_t blue_u;
};
struct ToYuv {
  std::int16_t luma[3];  // of R, G, B
  std::int16_t u[3];
  std::int16_t v[3];
  std::int16_t luma_offset;
};

// Codes of a matrix that is none of Kr and Kb are taken for BT.601.
FromYuv FromYuvOf(const YuvCoding& coding);
ToYuv ToYuvOf(const YuvCoding& coding);

struct YuvRows {
  std::uint8_t* y;
  std::uint8_t* u;  // of half as many samples, rounded up
  std::uint8_t* v;
};
struct RgbRows {
  std::uint8_t* r;
  std::uint8_t* g;
  std::uint8_t* b;
};

// The rows of one call do not overlap. A chroma sample stands for both of its pixels.
void RgbFromYuv(const FromYuv& coefficients, const YuvRows& yuv, int pixels, const RgbRows& rgb);

void LumaFromRgb(const ToYuv& coefficients, const RgbRows& rgb, int pixels, std::uint8_t* luma);

// Chroma of the mean of 2 x 2 pixels; the last column of an odd number counts twice. For the last
// row of an odd number pass it twice.
void ChromaFromRgb(const ToYuv& coefficients, const RgbRows& upper, const RgbRows& lower,
                   int pixels, std::uint8_t* u, std::uint8_t* v);

// Luma between its range of a coding and 0 .. 255, rounded to nearest.
void GreyFromLuma(const YuvCoding& coding, const std::uint8_t* luma, int pixels,
                  std::uint8_t* grey);
void LumaFromGrey(const YuvCoding& coding, const std::uint8_t* grey, int pixels,
                  std::uint8_t* luma);

}  // namespace qx::utils::image::engine
