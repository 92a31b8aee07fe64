// Checks of a calibration's values; each fails at the field that is wrong.
#pragma once

#include "qx_utils/stereo/camera/calibration_formats.h"
#include "qxtools/stereo_camera.h"

namespace qx::utils::stereo {

// Focal lengths are plausible, and the other elements are those of a camera matrix without skew.
void CheckCameraMatrix(const Field& field, const std::array<double, 9>& matrix);

// A rotation matrix: orthonormal to kRotationTolerance, determinant +1.
void CheckRotation(const Field& field, const std::array<double, 9>& matrix);

// A projection without skew, of the focal length of `camera_matrix` up to a factor of
// kMaxFocalRatio.
void CheckProjection(const Field& field, const CameraCalibration& camera);

// The right camera is to the right of the left one.
void CheckTranslation(const Field& field, const std::array<double, 3>& translation);

// Both projections describe one rectified pair with a baseline along x.
void CheckProjections(const StereoFields& fields, const StereoCalibration& calibration);

// Rectification and projections agree with rotation and translation.
void CheckAgreement(const StereoFields& fields, const StereoCalibration& calibration);

// OpenCV's Q agrees with the projections.
void CheckDepthMatrix(const Field& field, const StereoCalibration& calibration);

// Pictures of this size can be those of the calibration. A calibration that does not say its size
// is refused when a principal point is outside the middle 40 % of the pictures: it belongs to
// pictures of another size, twice as large, for example.
//
// Errors:  std::invalid_argument without a place.
void CheckPictureSize(const StereoCalibration& calibration, int width, int height);

}  // namespace qx::utils::stereo
