#include "qx_utils/stereo/camera/lens.h"

#include <cmath>

namespace qx::utils::stereo {
namespace {

// A ray as two numbers, in which the distortion of its model is smooth: slopes x/z and y/z for
// plumb bob; for equidistant, the angle to the optical axis in the direction of (x, y).
Vector2 FlatOf(const CameraCalibration& camera, const Vector3& ray) {
  if (camera.distortion_model == DistortionModel::kPlumbBob) {
    return {ray[0] / ray[2], ray[1] / ray[2]};
  }
  const double radius = std::hypot(ray[0], ray[1]);
  if (radius == 0) return {};
  const double scale = std::atan2(radius, ray[2]) / radius;
  return {ray[0] * scale, ray[1] * scale};
}

Vector3 RayOfFlat(const CameraCalibration& camera, const Vector2& flat) {
  if (camera.distortion_model == DistortionModel::kPlumbBob) return {flat[0], flat[1], 1};
  const double angle = std::hypot(flat[0], flat[1]);
  const double scale = angle == 0 ? 1 : std::sin(angle) / angle;
  return {flat[0] * scale, flat[1] * scale, std::cos(angle)};
}

// The tilted sensor of the Scheimpflug model: the last two of the 14 coefficients are the angles
// about x and y by which the sensor is turned.
Vector2 OnTiltedSensor(const CameraCalibration& camera, double x, double y) {
  const double tilt_x = camera.distortion[12], tilt_y = camera.distortion[13];
  if (tilt_x == 0 && tilt_y == 0) return {x, y};
  const Matrix3 turn = Multiply(RotationOf({0, -tilt_y, 0}), RotationOf({-tilt_x, 0, 0}));
  const Vector3 p = Multiply(turn, Vector3{x, y, 1});
  return {(turn[8] * p[0] - turn[2] * p[2]) / p[2], (turn[8] * p[1] - turn[5] * p[2]) / p[2]};
}

Vector2 DistortSlopes(const CameraCalibration& camera, double x, double y) {
  const auto& [k1, k2, p1, p2, k3, k4, k5, k6, s1, s2, s3, s4, tx, ty] = camera.distortion;
  const double r2 = x * x + y * y;
  const double radial =
      (1 + r2 * (k1 + r2 * (k2 + r2 * k3))) / (1 + r2 * (k4 + r2 * (k5 + r2 * k6)));
  const double bent_x = x * radial + 2 * p1 * x * y + p2 * (r2 + 2 * x * x) + r2 * (s1 + r2 * s2);
  const double bent_y = y * radial + p1 * (r2 + 2 * y * y) + 2 * p2 * x * y + r2 * (s3 + r2 * s4);
  return OnTiltedSensor(camera, bent_x, bent_y);
}

Vector2 Distort(const CameraCalibration& camera, const Vector2& flat) {
  if (camera.distortion_model == DistortionModel::kPlumbBob) {
    return DistortSlopes(camera, flat[0], flat[1]);
  }
  const auto& k = camera.distortion;
  const double t2 = flat[0] * flat[0] + flat[1] * flat[1];
  const double scale = 1 + t2 * (k[0] + t2 * (k[1] + t2 * (k[2] + t2 * k[3])));
  return {flat[0] * scale, flat[1] * scale};
}

// The largest error of RayOf(), before the camera matrix.
constexpr double kTolerance = 1e-9;

}  // namespace

Vector2 PixelOf(const CameraCalibration& camera, const Vector3& ray) {
  const Vector2 bent = Distort(camera, FlatOf(camera, ray));
  return {camera.camera_matrix[0] * bent[0] + camera.camera_matrix[2],
          camera.camera_matrix[4] * bent[1] + camera.camera_matrix[5]};
}

// Newton's method. It follows the branch that starts at the optical axis: the distortion is
// approached in steps, so that no root beyond the lens's largest angle is found.
std::optional<Vector3> RayOf(const CameraCalibration& camera, const Vector2& pixel) {
  constexpr int kSteps = 8, kIterations = 12;
  constexpr double kDifference = 1e-6;
  const Vector2 target = {(pixel[0] - camera.camera_matrix[2]) / camera.camera_matrix[0],
                          (pixel[1] - camera.camera_matrix[5]) / camera.camera_matrix[4]};
  Vector2 flat{};
  double error = 0;
  for (int i = 1; i < kSteps + kIterations; ++i) {
    const double share = std::fmin(1.0, static_cast<double>(i) / kSteps);
    const Vector2 at = Distort(camera, flat);
    const Vector2 right = Distort(camera, {flat[0] + kDifference, flat[1]});
    const Vector2 below = Distort(camera, {flat[0], flat[1] + kDifference});
    const double a = (right[0] - at[0]) / kDifference, b = (below[0] - at[0]) / kDifference;
    const double c = (right[1] - at[1]) / kDifference, d = (below[1] - at[1]) / kDifference;
    const double determinant = a * d - b * c;
    const double x = share * target[0] - at[0], y = share * target[1] - at[1];
    error = std::hypot(x, y);
    if (share == 1 && error <= kTolerance) break;
    if (!(determinant > 0)) return std::nullopt;  // the picture folds over itself here
    flat = {flat[0] + (d * x - b * y) / determinant, flat[1] + (a * y - c * x) / determinant};
  }
  if (!(error <= kTolerance)) return std::nullopt;
  return RayOfFlat(camera, flat);
}

}  // namespace qx::utils::stereo
