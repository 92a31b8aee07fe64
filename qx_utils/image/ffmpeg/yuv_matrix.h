// The coefficients of YUV to RGB and back, by the formulas of ITU-R BT.601 and its relatives.
//
// With Kr, Kb of the matrix and Kg = 1 - Kr - Kb, R, G, B and Y in 0 .. 1 and U, V in -0.5 .. 0.5:
//   Y = Kr R + Kg G + Kb B,  U = (B - Y) / (2 - 2 Kb),  V = (R - Y) / (2 - 2 Kr).
// Full range stores 255 Y and 255 U + 128, the other one 219 Y + 16 and 224 U + 128. Results are
// clipped to 0 .. 255 and rounded to nearest; the coefficients' own rounding moves a value by less
// than 0.1 before that.
#pragma once

#include <array>
#include <cstdint>

#include "qx_utils/image/ffmpeg/picture_view.h"
#include "qx_utils/image/kernels/pixel_rows.h"

namespace qx::utils::image::engine {

// Codes of a matrix that is none of Kr and Kb are taken for BT.601.
FromYuv FromYuvOf(const YuvCoding& coding);
ToYuv ToYuvOf(const YuvCoding& coding);

// From every value to its counterpart, rounded to nearest and clipped.
using ValueTable = std::array<std::uint8_t, 256>;

// Luma in the range of a coding to and from grey in 0 .. 255.
ValueTable GreyFromLuma(const YuvCoding& coding);
ValueTable LumaFromGrey(const YuvCoding& coding);

}  // namespace qx::utils::image::engine
