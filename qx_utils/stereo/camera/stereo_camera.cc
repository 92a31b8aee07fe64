#include "qxtools/stereo_camera.h"

#include <algorithm>
#include <stdexcept>

#include "qx_utils/stereo/camera/calibration_checks.h"
#include "qx_utils/stereo/camera/calibration_file.h"
#include "qx_utils/stereo/camera/calibration_formats.h"
#include "qx_utils/stereo/camera/matrix3.h"

namespace qx::utils::stereo {
namespace {

DistortionModel ModelOf(const CameraFields& fields) {
  if (!fields.model) return DistortionModel::kPlumbBob;
  const std::string& name = fields.model->Word();
  if (name == "plumb_bob" || name == "rational_polynomial") return DistortionModel::kPlumbBob;
  if (name == "equidistant" || name == "fisheye") return DistortionModel::kEquidistant;
  fields.model->FailWord("plumb_bob, rational_polynomial, equidistant or fisheye");
}

void SetDistortion(CameraCalibration& camera, const Field& field) {
  const std::vector<double> values = field.Numbers();
  const bool fisheye = camera.distortion_model == DistortionModel::kEquidistant;
  const std::vector<std::size_t> counts =
      fisheye ? std::vector<std::size_t>{4} : std::vector<std::size_t>{4, 5, 8, 12, 14};
  if (std::find(counts.begin(), counts.end(), values.size()) == counts.end()) {
    field.Fail("has " + std::to_string(values.size()) + " values, expected " +
               (fisheye ? "4" : "4, 5, 8, 12 or 14"));
  }
  std::copy(values.begin(), values.end(), camera.distortion.begin());
}

void SetSize(CameraCalibration& camera, const CameraFields& fields) {
  if (fields.width || fields.height) {
    if (!fields.height) fields.width->Fail("is given without the height");
    if (!fields.width) fields.height->Fail("is given without the width");
    camera.width = fields.width->PictureSize();
    camera.height = fields.height->PictureSize();
  } else if (fields.size) {
    const std::array<double, 2> size = fields.size->Matrix<1, 2>();
    if (!(1 <= size[0] && size[0] <= 65535 && 1 <= size[1] && size[1] <= 65535)) {
      fields.size->Fail("is not a width and a height in pixels");
    }
    camera.width = static_cast<int>(size[0]);
    camera.height = static_cast<int>(size[1]);
  }
}

CameraCalibration CameraOf(const CameraFields& fields) {
  CameraCalibration camera;
  SetSize(camera, fields);
  camera.camera_matrix = fields.camera_matrix.Matrix<3, 3>();
  CheckCameraMatrix(fields.camera_matrix, camera.camera_matrix);
  camera.distortion_model = ModelOf(fields);
  SetDistortion(camera, fields.distortion);
  if (fields.rectification) {
    camera.rectification = fields.rectification->Matrix<3, 3>();
    CheckRotation(*fields.rectification, camera.rectification);
    camera.projection = fields.projection->Matrix<3, 4>();
    CheckProjection(*fields.projection, camera);
  }
  return camera;
}

void CheckSameSize(const StereoFields& fields, const StereoCalibration& calibration) {
  const CameraCalibration& left = calibration.left;
  const CameraCalibration& right = calibration.right;
  if (left.width == right.width && left.height == right.height) return;
  const auto text = [](const CameraCalibration& camera) {
    return std::to_string(camera.width) + " x " + std::to_string(camera.height);
  };
  const Field& field = fields.right.width ? *fields.right.width : *fields.left.width;
  field.Fail("makes the pictures " + text(right) + ", the left camera's are " + text(left));
}

// A rectified point is the same for both cameras, up to the baseline:
// right.rectification * (rotation * p + translation) = left.rectification * p - (baseline, 0, 0).
void DeriveExtrinsics(StereoCalibration& calibration) {
  const Matrix3 back = Transpose(calibration.right.rectification);
  calibration.rotation = Multiply(back, calibration.left.rectification);
  calibration.translation = Multiply(
      back, Vector3{calibration.right.projection[3] / calibration.right.projection[0], 0, 0});
}

StereoCalibration CalibrationOf(const StereoFields& fields) {
  StereoCalibration calibration;
  calibration.left = CameraOf(fields.left);
  calibration.right = CameraOf(fields.right);
  CheckSameSize(fields, calibration);
  calibration.has_rectification = fields.left.rectification.has_value();
  if (fields.rotation) {
    calibration.rotation = fields.rotation->Matrix<3, 3>();
    CheckRotation(*fields.rotation, calibration.rotation);
    calibration.translation = fields.translation->Matrix<3, 1>();
    CheckTranslation(*fields.translation, calibration.translation);
  }
  if (calibration.has_rectification) {
    CheckProjections(fields, calibration);
    if (fields.rotation) {
      CheckAgreement(fields, calibration);
    } else {
      DeriveExtrinsics(calibration);
    }
    if (fields.depth_matrix) CheckDepthMatrix(*fields.depth_matrix, calibration);
  }
  return calibration;
}

}  // namespace

StereoCalibration ParseStereoCalibration(
    const std::vector<std::pair<std::string, std::string>>& texts) {
  if (texts.empty() || texts.size() > 2) {
    throw std::invalid_argument("a calibration is one file or two, not " +
                                std::to_string(texts.size()));
  }
  std::vector<CalibrationFile> files;
  files.reserve(texts.size());
  for (const auto& [name, text] : texts) files.push_back(ParseCalibrationFile(name, text));
  return CalibrationOf(FindFields(files));
}

StereoCalibration ReadStereoCalibration(const std::vector<std::string>& paths) {
  std::vector<std::pair<std::string, std::string>> texts;
  texts.reserve(paths.size());
  for (const std::string& path : paths) texts.emplace_back(path, ReadCalibrationText(path));
  return ParseStereoCalibration(texts);
}

StereoGeometry GeometryOf(const StereoCalibration& calibration) {
  if (!calibration.has_rectification) {
    throw std::invalid_argument("the calibration has no rectification");
  }
  const auto& left = calibration.left.projection;
  const auto& right = calibration.right.projection;
  return {left[0], left[2], left[6], right[2], -right[3] / right[0]};
}

}  // namespace qx::utils::stereo
