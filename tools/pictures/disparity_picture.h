// Disparity maps as files hold them: as numbers, and in colour with a legend.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/image.h"

namespace qx::tools {

// Disparities as StereoMatcher returns them: pixels * kDisparityUnits, or kMissingDisparity.
using DisparityImage = Image<std::uint16_t>;

// The disparities that were searched: first .. first + count - 1.
struct DisparityRange {
  int first;
  int count;
};

// Returns: the same with 0 where a disparity is missing; a disparity of 0 becomes 1.
Image<std::uint16_t> SamplesOf(const DisparityImage& map);

// Returns: disparities in pixels; infinity where one is missing, as in Middlebury's data sets.
Image<float> PixelsOf(const DisparityImage& map);

// Returns: the colour of `value` from 0 (far: dark blue) over magenta and orange to 1 (near:
//          yellow). Lightness rises all the way, so that the order survives a black-and-white print
//          and can be seen by colour-blind people.
Rgb ColourOf(float value);

// A number below the legend's bar: the columns of its text, and the column of its tick.
struct LegendLabel {
  int disparity;
  std::string text;
  int tick, left, right;
};

// Returns: the labels for a picture of `width` columns: multiples of 1, 2 or 5 times a power of
// ten,
//          as many as fit without touching; none when the picture is too narrow.
std::vector<LegendLabel> LegendLabels(int width, DisparityRange range);

// Paints the map, black where a disparity is missing, and below it the legend: a bar of the colours
// with their disparities in pixels.
Image<Rgb> Paint(const DisparityImage& map, DisparityRange range);

}  // namespace qx::tools
