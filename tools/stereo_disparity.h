// Disparity maps in pixels, as the output files take them.
#pragma once

#include <cstddef>
#include <vector>

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

}  // namespace qx::tools
