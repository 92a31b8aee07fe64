#include "qx_utils/stereo/camera/calibration_formats.h"

namespace qx::utils::stereo {
namespace {

struct CameraNames {
  Names width, height, size, model, camera_matrix, distortion, rectification, projection;
};

const Names kWidth = {"image_width"};
const Names kHeight = {"image_height"};
const Names kModel = {"distortion_model"};

// OpenCV leaves the names to its callers. These are the ones of its own sample, and of programs and
// data sets that write its format.
CameraNames OpenCvNames(bool left) {
  if (left) {
    return {{"image_width", "imageWidth", "LEFT.width"},
            {"image_height", "imageHeight", "LEFT.height"},
            {"image_size"},
            kModel,
            {"M1", "K1", "cameraMatrix1", "cameraMatrixL", "cameraMatrixLeft", "LEFT.K"},
            {"D1", "distCoeffs1", "distCoeffsL", "distCoeffsLeft", "LEFT.D"},
            {"R1", "LEFT.R"},
            {"P1", "LEFT.P"}};
  }
  return {{"image_width", "imageWidth", "RIGHT.width"},
          {"image_height", "imageHeight", "RIGHT.height"},
          {"image_size"},
          kModel,
          {"M2", "K2", "cameraMatrix2", "cameraMatrixR", "cameraMatrixRight", "RIGHT.K"},
          {"D2", "distCoeffs2", "distCoeffsR", "distCoeffsRight", "RIGHT.D"},
          {"R2", "RIGHT.R"},
          {"P2", "RIGHT.P"}};
}

CameraNames RosNames() {
  return {kWidth,
          kHeight,
          {},
          kModel,
          {"camera_matrix"},
          {"distortion_coefficients"},
          {"rectification_matrix"},
          {"projection_matrix"}};
}

CameraFields FindCamera(const FieldSource& source, const CameraNames& names) {
  return {source.Find(names.width),         source.Find(names.height),
          source.Find(names.size),          source.Find(names.model),
          source.Get(names.camera_matrix),  source.Get(names.distortion),
          source.Find(names.rectification), source.Find(names.projection)};
}

// The transforms of both cameras are there, or those of none.
bool HasRectification(const FieldSource& source) {
  int found = 0;
  Names missing;
  for (const bool left : {true, false}) {
    const CameraNames names = OpenCvNames(left);
    for (const Names& spellings : {names.rectification, names.projection}) {
      if (source.Find(spellings)) {
        ++found;
      } else {
        missing.push_back(spellings.front());
      }
    }
  }
  if (found != 0 && !missing.empty()) {
    source.Fail("'" + std::string(missing.front()) +
                "' is missing: R1, R2, P1 and P2 come together");
  }
  return found != 0;
}

StereoFields FindOpenCvFields(const std::vector<CalibrationFile>& files) {
  std::vector<const CalibrationFile*> all;
  all.reserve(files.size());
  for (const CalibrationFile& file : files) all.push_back(&file);
  const FieldSource source(all);
  StereoFields fields = {FindCamera(source, OpenCvNames(true)),
                         FindCamera(source, OpenCvNames(false)), source.Find({"R"}),
                         source.Find({"T"}), source.Find({"Q"})};
  const bool derived = HasRectification(source) && !fields.rotation && !fields.translation;
  if (!derived && !fields.rotation) source.Fail("'R' is missing: the rotation between the cameras");
  if (!derived && !fields.translation) source.Fail("'T' is missing: the way between the cameras");
  return fields;
}

CameraFields FindRosCamera(const CalibrationFile& file) {
  const FieldSource source({&file});
  CameraFields fields = FindCamera(source, RosNames());
  fields.width = source.Get(kWidth);
  fields.height = source.Get(kHeight);
  fields.rectification = source.Get(RosNames().rectification);
  fields.projection = source.Get(RosNames().projection);
  return fields;
}

StereoFields FindRosFields(const std::vector<CalibrationFile>& files) {
  if (files.size() != 2) {
    FailAt(files.front().name, 1,
           "describes one camera: give the left camera's file and the right one's");
  }
  return {FindRosCamera(files[0]), FindRosCamera(files[1]), {}, {}, {}};
}

bool IsRos(const CalibrationFile& file) {
  const FieldSource source({&file});
  return source.Find({"camera_matrix"}) || source.Find({"projection_matrix"});
}

}  // namespace

StereoFields FindFields(const std::vector<CalibrationFile>& files) {
  const bool first_is_ros = IsRos(files.front());
  if (IsRos(files.back()) != first_is_ros) {
    const CalibrationFile& other = first_is_ros ? files.back() : files.front();
    FailAt(other.name, 1, "has no 'camera_matrix', unlike the other file");
  }
  return first_is_ros ? FindRosFields(files) : FindOpenCvFields(files);
}

}  // namespace qx::utils::stereo
