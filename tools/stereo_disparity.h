// Disparity maps: choosing the best disparity of each pixel, and knowing where there is none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/stereo_smoothing.h"

namespace qx::tools {

// Marks a pixel whose disparity is missing.
constexpr float kMissing = -1;

// Disparities of the left picture's pixels, in pixels with fractions, or kMissing.
struct DisparityMap {
  DisparityMap(int columns, int rows)
      : width(columns),
        height(rows),
        values(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows), kMissing) {}

  float* Row(int y) {
    return values.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
  }
  const float* Row(int y) const {
    return values.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
  }

  int width;
  int height;
  std::vector<float> values;
};

// Chooses the cheapest disparity of each left pixel and refines it by the parabola through its cost
// and those of its two neighbours. The left-right check drops it when the right pixel that it leads
// to prefers a disparity that differs by more than 1, or when it leads out of the picture.
//
// Inputs:  costs  smaller is better. The right picture's costs are the same numbers: right pixel x
//                 at disparity d is left pixel x + d at d.
DisparityMap SelectDisparities(const Volume<const std::int16_t>& costs);

// Replaces each disparity by the median of those in the square of 2 * radius + 1 around it; missing
// ones stay missing and do not count. `radius` is 1 or 2.
DisparityMap MedianFilter(const DisparityMap& map, int radius);

// Drops patches of fewer than `pixels` connected pixels whose disparities differ by at most 1 from
// one to the next: they match by chance.
void RemoveSpeckles(int pixels, DisparityMap& map);

}  // namespace qx::tools
