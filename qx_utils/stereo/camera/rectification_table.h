// The map from a camera's pictures to rectified ones.
#pragma once

#include "qx_utils/stereo/camera/remap_table.h"
#include "qxtools/stereo_camera.h"

namespace qx::utils::stereo {

// Inputs:  camera  with `rectification` and `projection`.
//          size    of the raw and of the rectified pictures.
RemapTable RectificationTable(const CameraCalibration& camera, const PictureSize& size);

}  // namespace qx::utils::stereo
