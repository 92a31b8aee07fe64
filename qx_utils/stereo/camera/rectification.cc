#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "qx_utils/stereo/camera/calibration_checks.h"
#include "qx_utils/stereo/camera/lens.h"
#include "qx_utils/stereo/camera/matrix3.h"
#include "qxtools/stereo_camera.h"

namespace qx::utils::stereo {
namespace {

// The view is cut off here: slopes of 10 are 84 degrees off the optical axis.
constexpr double kWidestSlope = 10;
// Bounds of the rectified focal length, of the smallest of the cameras' own.
constexpr double kLeastZoom = 0.5;
constexpr double kMostZoom = 4;

struct Rotations {
  Matrix3 left, right;
  double baseline;
};

[[noreturn]] void FailApart() {
  throw std::invalid_argument(
      "the calibration cannot be rectified: the cameras hardly see the same");
}

// Half of the rotation between the cameras goes to each, in opposite directions, after which they
// look the same way. Then both are turned by the smallest angle that makes the baseline the x axis.
Rotations RectifyingRotations(const StereoCalibration& calibration) {
  const Vector3 between = RotationVectorOf(calibration.rotation);
  const Matrix3 half = RotationOf({-between[0] / 2, -between[1] / 2, -between[2] / 2});
  const Vector3 t = Multiply(half, calibration.translation);
  const double baseline = Norm(t);
  // The direction from the left camera to the right one, and its cross product with the x axis.
  const Vector3 direction = {-t[0] / baseline, -t[1] / baseline, -t[2] / baseline};
  const auto& r = calibration.rotation;
  const bool within_quarter_turn = r[0] + r[4] + r[8] >= 1;
  if (!within_quarter_turn || !(direction[0] > 0)) FailApart();
  const double sine = std::hypot(direction[1], direction[2]);
  const double scale = sine == 0 ? 0 : std::atan2(sine, direction[0]) / sine;
  const Matrix3 aligned = RotationOf({0, direction[2] * scale, -direction[1] * scale});
  return {Multiply(aligned, Transpose(half)), Multiply(aligned, half), baseline};
}

// Slopes of rectified rays that are in a picture.
struct View {
  double left = -kWidestSlope, top = -kWidestSlope, right = kWidestSlope, bottom = kWidestSlope;
};

// Takes from `view` what the camera does not see: what lies outside its picture's four edges.
void Restrict(View& view, const CameraCalibration& camera, const Matrix3& rectification, int width,
              int height) {
  constexpr int kPoints = 64;
  const auto slopes = [&](double x, double y) -> Vector2 {
    const auto ray = RayOf(camera, {x, y});
    const Vector3 turned = ray ? Multiply(rectification, *ray) : Vector3{};
    if (!(turned[2] > 0)) return {std::nan(""), std::nan("")};  // fmin and fmax skip it
    return {turned[0] / turned[2], turned[1] / turned[2]};
  };
  for (int i = 0; i <= kPoints; ++i) {
    const double x = (width - 1.0) * i / kPoints, y = (height - 1.0) * i / kPoints;
    view.left = std::fmax(view.left, slopes(0, y)[0]);
    view.right = std::fmin(view.right, slopes(width - 1.0, y)[0]);
    view.top = std::fmax(view.top, slopes(x, 0)[1]);
    view.bottom = std::fmin(view.bottom, slopes(x, height - 1.0)[1]);
  }
}

double SmallestFocalLength(const StereoCalibration& calibration) {
  const auto& left = calibration.left.camera_matrix;
  const auto& right = calibration.right.camera_matrix;
  return std::min({left[0], left[4], right[0], right[4]});
}

double RectifiedFocalLength(const StereoCalibration& calibration, const View& view, int width,
                            int height) {
  const double own = SmallestFocalLength(calibration);
  const double across = (width - 1) / (view.right - view.left);
  const double down = (height - 1) / (view.bottom - view.top);
  const double focal_length = std::max({across, down, kLeastZoom * own});
  if (!(view.left < view.right && view.top < view.bottom && focal_length <= kMostZoom * own)) {
    FailApart();
  }
  return focal_length;
}

}  // namespace

void ComputeRectification(StereoCalibration& calibration, int width, int height) {
  CheckPictureSize(calibration, width, height);
  const Rotations rotations = RectifyingRotations(calibration);
  View view;
  Restrict(view, calibration.left, rotations.left, width, height);
  Restrict(view, calibration.right, rotations.right, width, height);
  const double f = RectifiedFocalLength(calibration, view, width, height);
  const double center_x = (width - 1) / 2.0 - f * (view.left + view.right) / 2;
  const double center_y = (height - 1) / 2.0 - f * (view.top + view.bottom) / 2;

  calibration.left.rectification = rotations.left;
  calibration.right.rectification = rotations.right;
  calibration.left.projection = {f, 0, center_x, 0, 0, f, center_y, 0, 0, 0, 1, 0};
  calibration.right.projection = calibration.left.projection;
  calibration.right.projection[3] = -f * rotations.baseline;
  calibration.has_rectification = true;
}

}  // namespace qx::utils::stereo
