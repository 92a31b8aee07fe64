// What follows the choice of disparities: the map is cleaned, and its confidence made a
// probability.
#pragma once

#include <cstdint>

#include "qx_utils/stereo/frames.h"
#include "qx_utils/stereo/kernels/disparity_map.h"

namespace qx::utils::stereo {

// Replaces each disparity by the median of 3 x 3 pixels and drops patches that match by chance.
// `confidence`, or null, goes from the kernels' scale to a measured probability * 255; 0 where the
// disparity is missing.
void CleanDisparities(std::size_t width, std::size_t height, DisparityScratch& scratch,
                      std::uint16_t* disparity, std::uint8_t* confidence);

}  // namespace qx::utils::stereo
