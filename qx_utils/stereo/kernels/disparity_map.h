// What is done to a disparity map once it has been measured.
//
// A map is height x width values without gaps between the rows: disparity * 256, or
// kMissing. All operations are integer ones, so their results are the same everywhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qx::utils::stereo {

constexpr std::uint16_t kMissing = 0xFFFF;

// Two neighbours belong to one surface when their disparities differ by at most a pixel.
constexpr int kSurfaceStep = 256;

// The median kernels work on groups of this many pixels ...
constexpr std::size_t kMedianGroup = 16;
// ... and read this many pixels more on each side of a group.
constexpr std::size_t kMedianReach = 2;

// Writes the medians of the squares around kMedianGroup pixels that follow each other. Missing
// values do not count; of an even number of values the larger of the two middle ones is taken.
// Where the centre is missing, anything may be written.
//
// Inputs:  centre  the first pixel, in a map whose rows are `pitch` values apart.
// Output:  out     kMedianGroup values.
using MedianGroup = void (*)(const std::uint16_t* centre, std::size_t pitch, std::uint16_t* out);

// What an instruction set brings.
struct MedianKernel {
  MedianGroup square3;  // of 3 x 3 pixels
  MedianGroup square5;  // of 5 x 5
};

struct MedianVariant {
  const char* name;
  std::uint32_t required;  // processor features, see cpu_features.h
  const MedianKernel* kernel;
};

// All variants of this build, best first, `scalar` last.
const MedianVariant* MedianVariants(std::size_t* count);

extern const MedianKernel kMedianScalar;
#if defined(__x86_64__)
extern const MedianKernel kMedianAvx2;
#elif defined(__aarch64__)
extern const MedianKernel kMedianNeon;
#endif

// Memory that the operations below keep between calls; a call with a map no larger than an earlier
// one allocates nothing. Used by one call at a time.
class DisparityScratch {
 public:
  // Part of a row: pixels `first` .. `end` - 1 of row `y`, which have a common surface.
  struct Run {
    std::uint32_t first, end, y;
    std::uint32_t parent;  // index of another run of the same patch; its own for the first
    std::uint32_t pixels;  // of the whole patch, in its first run
  };

  // Makes the padded map large enough and everything around the inner pixels missing.
  void Pad(std::size_t width, std::size_t height);
  std::uint16_t* PaddedRow(std::size_t y);
  std::size_t pitch() const { return pitch_; }

  // An empty list with room for every pixel of a map.
  std::vector<Run>& Runs(std::size_t pixels);

 private:
  std::vector<std::uint16_t> padded_;
  std::size_t pitch_ = 0;
  std::vector<Run> runs_;
};

// Replaces each disparity by the median of the square of 2 * radius + 1 pixels around it; missing
// ones stay missing and do not count. `radius` is 1 or 2; `out` may be `in`. Rows over the OpenMP
// threads of the caller. Throws std::bad_alloc before it writes.
void MedianFilter(const MedianKernel& kernel, const std::uint16_t* in, std::size_t width,
                  std::size_t height, int radius, DisparityScratch& scratch, std::uint16_t* out);

// Removes patches of fewer than `pixels` connected pixels (up, down, left, right) that differ by at
// most kSurfaceStep from one to the next: they match by chance. On one thread.
void RemoveSpeckles(std::size_t pixels, std::size_t width, std::size_t height,
                    DisparityScratch& scratch, std::uint16_t* map);

// Most disparities are missing where the left camera sees what an object hides from the right one,
// and what is hidden lies behind the object: a gap in a row takes the smaller disparity of its two
// ends, a gap at the border that of its one end, and a row without any disparity the row above, or
// below where there is none above. The median of 5 x 5 pixels then joins the rows of what was
// filled. Measured pixels keep their values; a map without any becomes 0. `out` may be `in`.
// Rows over the OpenMP threads of the caller. Throws std::bad_alloc before it writes.
void FillMissing(const MedianKernel& kernel, const std::uint16_t* in, std::size_t width,
                 std::size_t height, DisparityScratch& scratch, std::uint16_t* out);

}  // namespace qx::utils::stereo
