// Which fields of which files describe the two cameras, per file format.
#pragma once

#include <optional>
#include <vector>

#include "qx_utils/stereo/camera/calibration_fields.h"

namespace qx::utils::stereo {

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): fields have no default constructor.
struct CameraFields {
  std::optional<Field> width, height;
  std::optional<Field> size;  // width and height in a list, instead of these
  std::optional<Field> model;
  Field camera_matrix, distortion;
  std::optional<Field> rectification, projection;
};

struct StereoFields {
  CameraFields left, right;
  std::optional<Field> rotation, translation;  // both, or neither: then rectification is there
  std::optional<Field> depth_matrix;           // OpenCV's Q
};

// Recognises the format of one file or two, and finds their fields.
//
// Errors:  std::invalid_argument "file:line: ..." for missing and contradictory fields, for files
//          of no known format, and for a wrong number of them.
StereoFields FindFields(const std::vector<CalibrationFile>& files);

}  // namespace qx::utils::stereo
