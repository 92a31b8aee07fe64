// Semi-global smoothing of a cost volume: neighbours agree on a disparity unless the pictures say
// otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/stereo_picture.h"

namespace qx::tools {

// A volume of height x width x disparities values, the disparities of a pixel adjacent; borrowed.
template <typename T>
struct Volume {
  int width;
  int height;
  int disparities;
  T* values;

  T* At(int x, int y) const {
    const auto pixel =
        static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x);
    return values + pixel * static_cast<std::size_t>(disparities);
  }
  std::size_t size() const {
    return static_cast<std::size_t>(height) * static_cast<std::size_t>(width) *
           static_cast<std::size_t>(disparities);
  }
};

// Adds up, for every pixel and disparity, the costs of the cheapest paths that lead to it from the
// left, the right, above, below and the four diagonals. A path pays for poor matches on its way and
// for changes of disparity; a large change is cheaper where the left picture has an edge.
//
// Inputs:  correlation  what CostVolume() makes of ComputeFeatures(); disparities that reach beyond
//                       the right picture's left border count as half a match, being unknown.
//          left         the left picture, of the same size.
// Output:  sums         of the same shape, overwritten: smaller is better; below 4000.
// Cost:    eight steps per value of the volume; memory for twelve rows of it. Six of the steps keep
//          two of the OpenMP threads busy, two keep all.
// Exact:   the same values for any number of threads.
void SumPathCosts(const Volume<const std::int8_t>& correlation, const GrayPicture& left,
                  const Volume<std::int16_t>& sums);

}  // namespace qx::tools
