// The stages of stereo matching as plain loops.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qx_utils/stereo/grey_view.h"

namespace qx::utils::stereo {

constexpr int kFeatureChannels = 32;

// Cost volume byte of two neighbourhoods that are the same up to brightness and contrast.
constexpr int kPerfectMatch = 124;

void ComputeFeatureMap(const GreyView& picture, std::size_t shift, std::int8_t* map);

// A volume of height x width x disparities values, the disparities of a pixel adjacent; borrowed.
template <typename T>
struct Volume {
  int width;
  int height;
  int disparities;
  int first;
  T* values;

  T* At(int x, int y) const {
    const auto pixel =
        static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x);
    return values + pixel * static_cast<std::size_t>(disparities);
  }
};

struct Guide {
  GreyView view;
  int slant, jump;
  const std::uint8_t* Row(int y) const {
    return view.data + static_cast<std::size_t>(y) * view.pitch;
  }
};

void SumPathCosts(const Volume<const std::int8_t>& correlation, const Guide& left,
                  const Volume<std::int16_t>& sums);

struct DisparityMap {
  DisparityMap(int columns, int rows)
      : width(columns),
        height(rows),
        values(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows), 0xFFFF) {}

  std::uint16_t* Row(int y) {
    return values.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
  }
  const std::uint16_t* Row(int y) const {
    return values.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
  }

  int width;
  int height;
  std::vector<std::uint16_t> values;
};

DisparityMap SelectDisparityMap(const Volume<const std::int16_t>& costs);
DisparityMap MedianFilter(const DisparityMap& map, int radius);
void RemoveSpeckles(int pixels, DisparityMap& map);
DisparityMap FillMissing(const DisparityMap& map);

}  // namespace qx::utils::stereo
