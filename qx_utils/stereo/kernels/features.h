// Feature maps that turn the cost volume's dot product into a normalised correlation: their
// definition and the table of variants.
//
// A pixel is described by the 32 grey values around it. Their mean is subtracted, which takes out
// the brightness, and the rest is divided by its root sum of squares, which takes out the contrast:
// the dot product of two such unit vectors is the correlation coefficient of the two
// neighbourhoods, 1 for the same texture and around 0 for unrelated ones.
//
// In integers, for the neighbours v of a pixel and their sum s:
//   squares = 32 * sum of v * v - s * s + kFeatureNoise       32 * 32 times the variance and noise
//   length  = kFeatureLength / sqrt(squares)                  in float, truncated to an integer
//   feature = (4 * (32 * v - s) * length + 2^14) >> 15        limited to -128 .. 127
// Everything but the second line is exact, and that line is one conversion without rounding, one
// square root and one division, which every processor rounds alike. So the same bytes come out of
// every variant, which may add in any order.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/stereo/grey_view.h"

namespace qx::utils::stereo {

constexpr std::size_t kFeatureChannels = 32;  // one block of the cost volume's dot product

struct FeatureOffset {
  int dx, dy;
};

// A block of 5 x 5 pixels without its centre, and two pixels more on each side: nearly a disc,
// which follows the outlines of objects better than a square of the same area.
constexpr FeatureOffset kFeatureOffsets[kFeatureChannels] = {
    {-1, -3}, {1, -3},                                                 //
    {-2, -2}, {-1, -2}, {0, -2},  {1, -2}, {2, -2},                    //
    {-3, -1}, {-2, -1}, {-1, -1}, {0, -1}, {1, -1}, {2, -1}, {3, -1},  //
    {-2, 0},  {-1, 0},  {1, 0},   {2, 0},                              //
    {-3, 1},  {-2, 1},  {-1, 1},  {0, 1},  {1, 1},  {2, 1},  {3, 1},   //
    {-2, 2},  {-1, 2},  {0, 2},   {1, 2},  {2, 2},                     //
    {-1, 3},  {1, 3},
};
constexpr int kFeatureReach = 3;

// Noise of a pixel's grey value: a standard deviation of 0.7, times 32, squared.
constexpr int kFeatureNoise = 502;

// Gives a unit vector the length 252: 252 * 256 * sqrt(32), see the shifts above. A value passes
// 127 only when a single neighbour carries half of the length, as isolated bright spots do.
constexpr float kFeatureLength = 364935.0F;

// Computes rows first_row .. end_row - 1 of a feature map on one thread.
//
// Inputs:  picture  at least 1 x 1; beyond its border the outermost pixels repeat.
//          shift    column x of the map describes column x - shift of the picture; columns 0 ..
//                   shift - 1 become null vectors. Matching a map without a shift against one with
//                   shift n finds disparities from n upwards.
// Output:  map      height x width x kFeatureChannels.
using FeatureRows = void (*)(const GreyView& picture, std::size_t shift, std::size_t first_row,
                             std::size_t end_row, std::int8_t* map);

// What an instruction set brings.
struct FeatureKernel {
  FeatureRows rows;
};

struct FeatureVariant {
  const char* name;
  std::uint32_t required;  // processor features, see cpu_features.h
  const FeatureKernel* kernel;
};

// All variants of this build, best first, `scalar` last.
const FeatureVariant* FeatureVariants(std::size_t* count);

// Computes a whole map with one kernel on the OpenMP threads of the caller. Allocates nothing.
// Exact: the same bytes for every variant and any number of threads.
void ComputeFeatureMap(const FeatureKernel& kernel, const GreyView& picture, std::size_t shift,
                       std::int8_t* map);

extern const FeatureKernel kFeaturesScalar;
#if defined(__x86_64__)
extern const FeatureKernel kFeaturesAvx2;
#elif defined(__aarch64__)
extern const FeatureKernel kFeaturesNeon;
#endif

}  // namespace qx::utils::stereo
