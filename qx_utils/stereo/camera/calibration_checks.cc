#include "qx_utils/stereo/camera/calibration_checks.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "qx_utils/stereo/camera/matrix3.h"

namespace qx::utils::stereo {
namespace {

// Rotations are written with at least four decimals.
constexpr double kRotationTolerance = 1e-3;
// Of two figures for the same length, relative.
constexpr double kLengthTolerance = 1e-2;
// A rectified picture's focal length differs from the camera's by the view that is kept.
constexpr double kMaxFocalRatio = 10;
// Of two figures for the same value, relative: they differ only in how they are rounded.
constexpr double kSame = 1e-6;
constexpr double kLeastFocalLength = 1;
constexpr double kMostFocalLength = 1e6;
// In the calibration's unit; its reciprocal is the least.
constexpr double kMostBaseline = 1e9;

std::string Text(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.6g", value);
  return text;
}

bool Near(double a, double b, double tolerance) {
  return std::fabs(a - b) <= tolerance * std::fmax(std::fabs(a), std::fabs(b));
}

double FocalLength(const CameraCalibration& camera) { return camera.projection[0]; }

double BaselineOf(const CameraCalibration& right) {
  return -right.projection[3] / FocalLength(right);
}

void CheckFocalLength(const Field& field, const char* name, double value) {
  if (!(kLeastFocalLength <= value && value <= kMostFocalLength)) {
    field.Fail(std::string("has the focal length ") + name + " = " + Text(value) +
               ", expected 1 to 1e6 pixels");
  }
}

// A length of 0 has been reported before.
void CheckBaseline(const Field& field, double value) {
  if (!(1 / kMostBaseline <= value && value <= kMostBaseline)) {
    field.Fail("has the baseline " + Text(value) + ", expected 1e-9 to 1e9");
  }
}

// A principal point (x, y) near the middle of width x height pixels.
bool IsNearMiddle(const CameraCalibration& camera, int width, int height) {
  const auto near = [](double value, int size) { return 0.3 * size < value && value < 0.7 * size; };
  return near(camera.camera_matrix[2], width) && near(camera.camera_matrix[5], height);
}

std::string SizeText(int width, int height) {
  return std::to_string(width) + " x " + std::to_string(height);
}

void CheckCameraPictures(const char* name, const CameraCalibration& camera, int width, int height) {
  if (camera.width != 0 && (camera.width != width || camera.height != height)) {
    throw std::invalid_argument("the pictures are " + SizeText(width, height) +
                                ", but the calibration is of " +
                                SizeText(camera.width, camera.height));
  }
  if (camera.width == 0 && !IsNearMiddle(camera, width, height)) {
    throw std::invalid_argument(
        "the pictures are " + SizeText(width, height) + ", but the calibration has the " + name +
        " camera's principal point at " + Text(camera.camera_matrix[2]) + ", " +
        Text(camera.camera_matrix[5]) +
        ": it is of another picture size, or needs image_width and image_height");
  }
}

}  // namespace

void CheckCameraMatrix(const Field& field, const std::array<double, 9>& matrix) {
  CheckFocalLength(field, "fx", matrix[0]);
  CheckFocalLength(field, "fy", matrix[4]);
  if (matrix[1] != 0 || matrix[3] != 0 || matrix[6] != 0 || matrix[7] != 0 || matrix[8] != 1) {
    field.Fail("is not of the form fx 0 cx, 0 fy cy, 0 0 1");
  }
}

void CheckRotation(const Field& field, const std::array<double, 9>& matrix) {
  const double error = Distance(Multiply(matrix, Transpose(matrix)), kIdentity3);
  if (!(error <= kRotationTolerance)) {
    field.Fail("is not a rotation: its product with its transpose is off the identity by " +
               Text(error));
  }
  if (Determinant(matrix) < 0) field.Fail("is not a rotation: its determinant is -1");
}

void CheckProjection(const Field& field, const CameraCalibration& camera) {
  const auto& p = camera.projection;
  CheckFocalLength(field, "fx", p[0]);
  CheckFocalLength(field, "fy", p[5]);
  if (p[1] != 0 || p[4] != 0 || p[8] != 0 || p[9] != 0 || p[10] != 1 || p[11] != 0) {
    field.Fail("is not of the form f 0 cx tx, 0 f cy ty, 0 0 1 0");
  }
  const double ratio = p[0] / camera.camera_matrix[0];
  if (!(1 / kMaxFocalRatio < ratio && ratio < kMaxFocalRatio)) {
    field.Fail("has the focal length " + Text(p[0]) + ", the camera has " +
               Text(camera.camera_matrix[0]));
  }
  if (!Near(p[0], p[5], kSame))
    field.Fail("has fx and fy that differ, unlike a rectified camera's");
}

void CheckTranslation(const Field& field, const std::array<double, 3>& t) {
  if (Norm(t) == 0) field.Fail("is 0: the cameras have no baseline");
  if (std::fabs(t[1]) > std::fabs(t[0])) {
    field.Fail("points along y: cameras above each other are not supported");
  }
  if (std::fabs(t[2]) > std::fabs(t[0])) {
    field.Fail("points along z: the cameras are not side by side");
  }
  if (t[0] > 0) field.Fail("has x = " + Text(t[0]) + " > 0: left and right are swapped");
  CheckBaseline(field, Norm(t));
}

void CheckProjections(const StereoFields& fields, const StereoCalibration& calibration) {
  const auto& left = calibration.left.projection;
  const auto& right = calibration.right.projection;
  const Field& field = *fields.right.projection;
  if (left[7] != 0 || right[7] != 0) {
    field.Fail("has its baseline along y: cameras above each other are not supported");
  }
  if (left[3] != 0) {
    fields.left.projection->Fail(
        "has a baseline, as only the right camera's has: " +
        std::string(right[3] == 0 ? "left and right are swapped" : "it is not the left camera's"));
  }
  if (right[3] == 0) {
    field.Fail("has no baseline (the fourth value): it is not the right camera's of a pair");
  }
  if (right[3] > 0) field.Fail("has a negative baseline: left and right are swapped");
  CheckBaseline(field, BaselineOf(calibration.right));
  if (!Near(left[0], right[0], kSame) || !Near(left[6], right[6], kSame)) {
    field.Fail("has another focal length or cy than " + fields.left.projection->Place());
  }
}

void CheckAgreement(const StereoFields& fields, const StereoCalibration& calibration) {
  const Matrix3 turned = Multiply(calibration.right.rectification, calibration.rotation);
  if (Distance(turned, calibration.left.rectification) > 2 * kRotationTolerance) {
    fields.right.rectification->Fail("does not agree with '" + fields.rotation->Key() + "' in " +
                                     fields.rotation->Place());
  }
  const Vector3 t = Multiply(calibration.right.rectification, calibration.translation);
  const double baseline = BaselineOf(calibration.right);
  if (std::hypot(t[1], t[2]) > kLengthTolerance * Norm(t) ||
      !Near(baseline, Norm(t), kLengthTolerance)) {
    fields.right.projection->Fail("has the baseline " + Text(baseline) + ", but '" +
                                  fields.translation->Key() + "' in " +
                                  fields.translation->Place() + " gives " + Text(-t[0]));
  }
}

// Q = 1 0 0 -cx, 0 1 0 -cy, 0 0 0 f, 0 0 1/baseline ...
void CheckDepthMatrix(const Field& field, const StereoCalibration& calibration) {
  const auto q = field.Matrix<4, 4>();
  const double focal_length = FocalLength(calibration.left);
  const double baseline = BaselineOf(calibration.right);
  if (!Near(q[11], focal_length, kLengthTolerance) ||
      !Near(std::fabs(q[14]) * baseline, 1, kLengthTolerance)) {
    field.Fail("has the focal length " + Text(q[11]) + " and the baseline " + Text(1 / q[14]) +
               ", the projections have " + Text(focal_length) + " and " + Text(baseline));
  }
}

void CheckPictureSize(const StereoCalibration& calibration, int width, int height) {
  CheckCameraPictures("left", calibration.left, width, height);
  CheckCameraPictures("right", calibration.right, width, height);
}

}  // namespace qx::utils::stereo
