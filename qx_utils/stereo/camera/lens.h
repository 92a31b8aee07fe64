// The distortion of a camera, from rays to pixels and back.
#pragma once

#include <array>
#include <optional>

#include "qx_utils/stereo/camera/matrix3.h"
#include "qxtools/stereo_camera.h"

namespace qx::utils::stereo {

using Vector2 = std::array<double, 2>;

// Returns: the pixel that a ray in the camera's coordinates reaches, not rounded; may be outside
//          the picture. Plumb bob: ray[2] is not 0.
Vector2 PixelOf(const CameraCalibration& camera, const Vector3& ray);

// Returns: a ray that reaches `pixel`, to 1e-9 of the focal length; nothing where the distortion
//          cannot be inverted, beyond the largest angle that the lens shows.
std::optional<Vector3> RayOf(const CameraCalibration& camera, const Vector2& pixel);

}  // namespace qx::utils::stereo
