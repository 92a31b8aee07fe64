// The stages of stereo matching as plain loops.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qx_utils/stereo/grey_view.h"

namespace qx::utils::stereo {

// Cost volume byte of two neighbourhoods that are the same up to brightness and contrast.
constexpr int kPerfectMatch = 124;

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

void SelectDisparityMap(const Volume<const std::int16_t>& costs, std::uint16_t* map);

}  // namespace qx::utils::stereo
