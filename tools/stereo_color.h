// Disparity maps in colour, with a legend.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/stereo_disparity.h"

namespace qx::tools {

struct Rgb {
  std::uint8_t r, g, b;
};

// A colour picture: height x width pixels, row by row without padding.
struct RgbPicture {
  RgbPicture(int columns, int rows, Rgb colour)
      : width(columns),
        height(rows),
        pixels(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows), colour) {}

  Rgb* Row(int y) {
    return pixels.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
  }

  int width;
  int height;
  std::vector<Rgb> pixels;
};

// Returns: the colour of `value` from 0 (far: dark blue) over magenta and orange to 1 (near:
//          yellow). Lightness rises all the way, so the order survives a black-and-white print and
//          colour-blind eyes.
Rgb ColourOf(float value);

// A number below the legend's bar: the columns that its text takes, and that of its tick.
struct LegendLabel {
  int disparity;
  std::string text;
  int tick, left, right;
};

// Returns: the labels for a picture of `width` columns: multiples of 1, 2 or 5 times a power of
// ten,
//          as many as fit without touching; none when the picture is too narrow.
std::vector<LegendLabel> LegendLabels(int width, int disparities);

// Paints the map, black where a disparity is missing, and below it the legend: a bar of the colours
// with their disparities in pixels. `disparities` is the number searched: the end of the scale.
RgbPicture Paint(const DisparityMap& map, int disparities);

}  // namespace qx::tools
