// What depth maps and points are computed from, checked.
#pragma once

#include "qx_utils/stereo/frames.h"
#include "qxtools/depth.h"

namespace qx::utils::stereo {

// Errors: std::invalid_argument when a length is not above 0 or a number is not finite.
void CheckGeometry(const StereoGeometry& geometry);

// Returns: the values of a confidence map of that size; null when there is none.
// Errors:  std::invalid_argument when it has another size or format.
const std::uint8_t* ConfidenceOf(const FramePtr& confidence, const Shape& size);

// Errors: std::invalid_argument that names the frame when its shape is not `expected`.
void CheckShape(const Shape& shape, const Shape& expected, const char* name);

}  // namespace qx::utils::stereo
