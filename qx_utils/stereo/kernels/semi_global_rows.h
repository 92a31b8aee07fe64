// What the kernels of semi-global matching work on: one row of a pass, and one row of sums.
//
// A path cost is a byte, and so is everything made of it:
//
//   cost(d)   = min((128 - correlation(d)) / 2, limit)
//               or unknown_cost where d leads out of the picture
//   path(d)   = cost(d) + min(before(d), before(d - 1) + slant, before(d + 1) + slant, m + jump)
//               - m, where `before` is the path at the pixel before, and m its minimum; 0 at the
//               border
//   half(d)   = average(average(horizontal, vertical), average(the two diagonals)), rounded up
//               each time; average(horizontal, vertical) with four paths
//   sum(d)    = half(d) of one pass + half(d) of the other, at most 255
//
// limit + jump + slant = 255, so no path cost overflows.
//
// A kernel is a single-threaded function over a range of columns. It allocates, logs and throws
// nothing. Every variant writes the same bytes as `scalar`, which is the definition.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx::utils::stereo {

// Prices of a jump by the difference of two grey values, divided by this; the last one is for all
// larger differences.
constexpr std::size_t kJumpPrices = 16;
constexpr std::size_t kGreyPerPrice = 4;

// What is the same for all rows of a picture.
struct SemiGlobalPlan {
  std::size_t width;
  std::size_t disparities;  // 1 .. 256
  std::size_t first_disparity;
  std::size_t paths;  // 8 or 4
  std::size_t cells;  // of a pixel: the disparities, rounded up to what the kernel asks for
  std::size_t pitch;  // bytes from pixel to pixel of path costs and sums: cells and a gap
  std::size_t slots;  // pixels that a direction's path costs have room for
  std::uint8_t slant;
  std::uint8_t limit;         // the largest cost of a match
  std::uint8_t unknown_cost;  // of a disparity that leads out of the right picture
  std::uint8_t prices[kJumpPrices];
};

// The paths that come from the row before: from x - 1, x and x + 1.
constexpr std::size_t kRowPaths = 3;

// The minima of a pixel's paths, one byte each: the horizontal one, then the kRowPaths others.
using PathMinima = std::uint32_t;

// One row of a pass. Pointers are to column 0 unless stated otherwise.
//
// The path costs of a direction stay in their place while the path moves on: the slot of column x
// is x - number for paths from x - 1, x for those from x, x + number for those from x + 1, all
// modulo `slots`. What stands in it is the row before's, until it is replaced. Before a row starts,
// the slots of paths that begin at its ends hold zeros. The gaps hold 255 - slant.
struct PassRow {
  const std::int8_t* correlation;  // width x disparities
  const std::int8_t* last;         // a copy of the last `last_columns`, to be read instead of them:
  std::size_t last_columns;        // it may be read past its end
  std::uint8_t* halves;            // width x cells; written, or read if `sums` is not null
  std::uint8_t* sums;              // width x pitch, or null
  const std::uint8_t* grey;        // of this row and of the one before; may be read
  const std::uint8_t* grey_before;  // kSemiGlobalSpare bytes past either end
  std::uint8_t* paths[kRowPaths];
  std::uint8_t* horizontal;         // cells of the column before
  const PathMinima* minima_before;  // of the row before; zeros at -1 and `width`
  PathMinima* minima;               // of this row; zeros at -1 and `width`
  std::size_t number;               // of the row in its pass
  int step;                         // 1 when columns are visited from left to right, -1 otherwise
};

constexpr std::size_t kSemiGlobalAlignment = 64;
constexpr std::size_t kSemiGlobalSpare = 64;

// Sums of a row, and what is chosen from them.
//
// A left pixel's disparity is the first of those with the smallest sum. It is missing if its sum
// is 255, if it leads out of the right picture, or if its right pixel prefers another one by more
// than 1: if none of the sums of that right pixel at d - 1, d and d + 1 is the smallest of all its
// sums. The right pixel's sum at d is the left pixel's d further right.
struct SelectionRow {
  // width x pitch. The gaps hold 255, and so do the cells past the last disparity, one pixel before
  // the first and kSelectionBlock past the last.
  const std::uint8_t* sums;
  std::uint8_t* scratch;  // kSelectionArrays arrays of width + kSelectionSpare bytes
  std::uint16_t* disparity;
  std::uint8_t* confidence;  // or null
};

constexpr std::size_t kSelectionBlock = 16;
constexpr std::size_t kSelectionArrays = 6;
constexpr std::size_t kSelectionSpare = 512;
constexpr std::uint16_t kNoMatch = 0xFFFF;

// What an instruction set brings.
struct SemiGlobalKernel {
  std::size_t gap;                                // bytes between two pixels, at least 1
  std::size_t (*cells)(std::size_t disparities);  // see SemiGlobalPlan
  // Extends all paths of columns first .. end - 1, in the order of `row.step`.
  void (*extend)(const SemiGlobalPlan& plan, const PassRow& row, std::size_t first,
                 std::size_t end);
  void (*select)(const SemiGlobalPlan& plan, const SelectionRow& row);
};

extern const SemiGlobalKernel kSemiGlobalScalar;
#if defined(__x86_64__)
extern const SemiGlobalKernel kSemiGlobalAvx2;
extern const SemiGlobalKernel kSemiGlobalAvx512;
#elif defined(__aarch64__)
extern const SemiGlobalKernel kSemiGlobalNeon;
#endif

}  // namespace qx::utils::stereo
