// The calibration of two cameras that stand side by side.
//
//   using namespace qx::utils;
//   auto calibration = stereo::ReadStereoCalibration({"intrinsics.yml", "extrinsics.yml"});
//   if (!calibration.has_rectification) stereo::ComputeRectification(calibration, 640, 480);
//   const stereo::StereoGeometry geometry = stereo::GeometryOf(calibration);
//
// Coordinates are those of OpenCV and ROS: x to the right, y down, z along the optical axis; the
// centre of the top left pixel is (0, 0). Matrices are row-major. Lengths are in the calibration's
// unit: metres in ROS files, otherwise the unit in which the calibration target was measured.
//
// Errors:  std::invalid_argument, with a text of one line. What is wrong in a file is reported with
//          its name and line: "left.yml:7: 'M1' has 8 values, expected 9". docs/calibration.md
//          lists the names that are read and what faulty files get.
// Threads: every function is reentrant.
#pragma once

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "qxtools/export.h"

namespace qx::utils::stereo {

// How a lens bends the ray through (a, b, 1) before the camera matrix maps it to a pixel.
enum class DistortionModel : int {
  // OpenCV's: k1 k2 p1 p2 [k3 [k4 k5 k6 [s1 s2 s3 s4 [tx ty]]]], 4, 5, 8, 12 or 14 coefficients;
  // those that a file omits are 0. ROS names it plumb_bob or rational_polynomial.
  kPlumbBob = 0,
  // The fisheye model: k1 .. k4 of t * (1 + k1 t^2 + k2 t^4 + k3 t^6 + k4 t^8), t being the angle
  // between the ray and the optical axis.
  kEquidistant = 1,
};

struct CameraCalibration {
  int width = 0;  // of its pictures in pixels; 0 if the file does not say
  int height = 0;
  std::array<double, 9> camera_matrix{};  // fx 0 cx, 0 fy cy, 0 0 1
  DistortionModel distortion_model = DistortionModel::kPlumbBob;
  std::array<double, 14> distortion{};  // in the order that DistortionModel gives
  // With StereoCalibration::has_rectification: the rotation from this camera's coordinates to the
  // rectified ones, and the projection of rectified coordinates to rectified pixels. The right
  // camera's projection holds -focal length * baseline in the last column of its first row.
  std::array<double, 9> rectification{};
  std::array<double, 12> projection{};
};

struct StereoCalibration {
  CameraCalibration left;
  CameraCalibration right;
  // A point p in the left camera's coordinates is rotation * p + translation in the right one's.
  std::array<double, 9> rotation{};
  std::array<double, 3> translation{};
  bool has_rectification = false;  // both cameras' `rectification` and `projection` are set
};

// What turns a disparity d of rectified pictures into depth:
// focal_length * baseline / (d - (center_x - center_x_right)).
struct StereoGeometry {
  double focal_length = 0;  // pixels
  double center_x = 0;      // the rectified left picture's principal point, pixels
  double center_y = 0;
  double center_x_right = 0;  // the rectified right picture's; center_y is the same
  double baseline = 0;        // > 0, in the calibration's unit
};

// Reads a calibration.
//
// Inputs:  paths  one file, or two, of at most 1 MiB each, in one of these formats:
//                 - OpenCV's YAML: everything in one file, or intrinsics and extrinsics in two, in
//                   any order;
//                 - ROS camera_info YAML: the left camera's file, then the right one's.
// Returns: the calibration; has_rectification if the files have the transforms.
// Errors:  as at the top, for files that cannot be read, miss a field or contradict themselves.
QXTOOLS_EXPORT StereoCalibration ReadStereoCalibration(const std::vector<std::string>& paths);

// The same for texts in memory.
//
// Inputs:  texts  {the name to use in messages, the contents}, as for ReadStereoCalibration().
QXTOOLS_EXPORT StereoCalibration
ParseStereoCalibration(const std::vector<std::pair<std::string, std::string>>& texts);

// Computes the rectification of both cameras and replaces what was there: each camera is turned by
// half of the rotation between them, then both so that the baseline is the x axis (Bouguet's
// method). Both projections have the same principal point, so that the disparity at infinity is 0.
// Their focal length gives the widest view in which every pixel of both rectified pictures is
// covered by the raw ones, but is at least half of the cameras' own, which bounds the stretching
// of fisheye pictures.
//
// Inputs:  calibration    everything but `rectification` and `projection`.
//          width, height  of the raw and of the rectified pictures.
// Errors:  std::invalid_argument when the calibration is of another picture size, or when the
//          cameras' views do not overlap. The calibration is unchanged then.
QXTOOLS_EXPORT void ComputeRectification(StereoCalibration& calibration, int width, int height);

// Returns: the geometry of the rectified cameras.
// Errors:  std::invalid_argument when the calibration has no rectification.
QXTOOLS_EXPORT StereoGeometry GeometryOf(const StereoCalibration& calibration);

}  // namespace qx::utils::stereo
