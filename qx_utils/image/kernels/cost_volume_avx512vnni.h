// What the files of the AVX-512 VNNI cost volume share: the tile, where its data is, and what they
// tell the compiler.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__clang__)
#define QXTOOLS_UNROLL _Pragma("clang loop unroll(full)")
#else
#define QXTOOLS_UNROLL _Pragma("GCC unroll 16")
#endif
#define QXTOOLS_INLINE __attribute__((always_inline)) inline

namespace qx {
namespace utils {
namespace image {
namespace avx512vnni {

// The right row is packed with its columns reversed: grain by grain (a grain being 4 or 16
// neighbouring channels), the same grain of all columns side by side. 64 bytes from any column on
// are a window: the right factors of a left pixel for neighbouring disparities.
constexpr std::size_t kWindow = 64;      // bytes
constexpr std::size_t kShort = 4;        // channels of a grain, for windows of 16 disparities
constexpr std::size_t kLong = 16;        // for windows of 4
constexpr std::size_t kPixels = 4;       // left pixels of a tile, a window's columns apart
constexpr std::size_t kMostWindows = 4;  // of each of them, side by side

// What all tiles of a job have in common.
struct TileJob {
  std::size_t channels;   // in whole blocks
  std::size_t pitch;      // bytes from grain to grain of the windows
  std::size_t left_step;  // bytes from pixel to pixel of a tile
  std::size_t cost_step;
  std::size_t costs;  // of each pixel, to be stored: kWindow / grain for each window, or below 16
  float scale;
  bool wide;  // see NeedsWide()
};

struct TilePlace {
  const std::int8_t* left;   // first pixel
  const std::int8_t* right;  // first window of the last pixel; behind the last grain follows, like
                             // one more, -128 times the sum of what is packed
  std::int8_t* cost;         // first cost of the first pixel
  std::size_t pixels;        // 1 .. kPixels, to be computed
};

using Tile = void (*)(const TileJob& job, const TilePlace& place);

// The function for tiles of kShort (2 .. 4 windows) or kLong grains (1 .. 4 windows). When
// `at_edge` is set, all windows but the first of the first pixel, the first two of the second, and
// so on, hold zeros.
Tile TileOf(std::size_t grain, std::size_t windows, bool at_edge);

// Whether some sum can make a cost that 15 bits do not hold; true for a scale that is no number.
bool NeedsWide(std::size_t channels, float scale);

}  // namespace avx512vnni
}  // namespace image
}  // namespace utils
}  // namespace qx
