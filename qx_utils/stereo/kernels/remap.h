// Remapping a picture through a fixed map, as rectification does: the map's form, the operation's
// definition and the table of variants.
//
// A map says for each pixel of the result where its value comes from: a position (x, y) in the
// source picture and the fractions fx, fy of the step to the next column and row, in units of 1/128
// pixel. Between the four pixels around that place, a b above c d,
//
//   above = a * (128 - fx) + b * fx
//   below = c * (128 - fx) + d * fx
//   value = (above + (((below - above) * fy + 64) >> 7) + 64) >> 7
//
// in integers, so that every variant gives the same bytes. A pixel outside the source counts as 0.
//
// Neighbouring pixels have neighbouring sources. So the map is kept in groups of 8 pixels, and a
// group whose sources lie in a window of 16 columns and 3 rows keeps the window's corner, and a
// byte for each pixel: its place in the window. That is 3.5 bytes for a pixel instead of the 6 of
// two 16-bit coordinates and their fractions, and a vector kernel loads three rows and permutes
// their bytes instead of gathering pixels one by one. Other groups keep a position for each pixel:
// those at the source's border, and those of maps that stretch, shrink or turn the picture much.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/stereo/grey_view.h"

namespace qx::utils::stereo {

constexpr int kRemapBits = 7;
constexpr int kRemapUnit = 1 << kRemapBits;  // steps of a fraction to the next pixel
constexpr std::size_t kRemapGroup = 8;       // pixels
constexpr std::size_t kRemapStep = 32;       // rows of a map are padded to a multiple of it
constexpr std::size_t kWindowColumns = 16;
constexpr std::size_t kWindowRows = 3;

constexpr std::uint8_t kNoSource = 0x80;         // RemapView::places: the pixel becomes 0
constexpr std::uint32_t kScattered = 1U << 31U;  // RemapView::groups: without a window

struct SourcePosition {
  std::int16_t x, y;  // -1 .. size - 1: one column or row of the four may be outside
};

// A map in somebody else's memory. Rows are `stride` pixels apart; the padding has no source. All
// windows are within the source picture.
struct RemapView {
  std::size_t width, height;  // of the result
  std::size_t stride;
  std::size_t source_width, source_height;
  // For each group x | y << 16, the window's corner, or kScattered | the number of its 8 positions.
  const std::uint32_t* groups;
  const std::uint8_t* places;  // in the window: row (0, 1) * 16 + column (0 .. 14); or kNoSource
  const std::uint8_t* fx;      // 0 .. 127
  const std::uint8_t* fy;
  const SourcePosition* scattered;
};

// Computes rows first_row .. end_row - 1 of the result on one thread.
//
// Inputs:  source  of the map's source size. No byte outside its rows is read, except for the gaps
//                  between rows.
// Output:  result  height rows of width pixels without gaps.
using RemapRows = void (*)(const RemapView& map, const GreyView& source, std::size_t first_row,
                           std::size_t end_row, std::uint8_t* result);

// What an instruction set brings.
struct RemapKernel {
  RemapRows grey;
  RemapRows colour;  // 3 bytes a pixel; the source's width still counts pixels
};

struct RemapVariant {
  const char* name;
  std::uint32_t required;  // processor features, see cpu_features.h
  const RemapKernel* kernel;
};

// All variants of this build, best first, `scalar` last.
const RemapVariant* RemapVariants(std::size_t* count);

// Computes a whole picture on the OpenMP threads of the caller. Allocates nothing.
// Exact: the same bytes for every variant and any number of threads.
void RemapPicture(RemapRows rows, const RemapView& map, const GreyView& source,
                  std::uint8_t* result);

extern const RemapKernel kRemapScalar;
#if defined(__x86_64__)
extern const RemapKernel kRemapAvx2;
extern const RemapKernel kRemapAvx512;
#elif defined(__aarch64__)
extern const RemapKernel kRemapNeon;
#endif

}  // namespace qx::utils::stereo
