// What holds for the calibration reader whatever the files hold.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/require.h"
#include "qx_utils/stereo/camera/matrix3.h"
#include "qxtools/stereo_camera.h"

namespace qx::fuzzing {

using Texts = std::vector<std::pair<std::string, std::string>>;

// A form feed ends the first of two files.
inline Texts TextsOf(const std::string& input) {
  const std::size_t end = input.find('\f');
  if (end == std::string::npos) return {{"stereo.yml", input}};
  return {{"left.yaml", input.substr(0, end)}, {"right.yaml", input.substr(end + 1)}};
}

// The rectified cameras look the same way, and their baseline is the x axis. Rotations of files are
// only orthonormal to 1e-3.
inline void CheckRectification(const utils::stereo::StereoCalibration& calibration) {
  using utils::stereo::Multiply;
  const auto turned = Multiply(calibration.right.rectification, calibration.rotation);
  Require(utils::stereo::Distance(turned, calibration.left.rectification) < 1e-2);
  const auto t = Multiply(calibration.right.rectification, calibration.translation);
  const auto geometry = GeometryOf(calibration);
  Require(geometry.baseline > 0 && std::isfinite(geometry.baseline));
  Require(std::hypot(t[0] + geometry.baseline, t[1], t[2]) < 2e-2 * geometry.baseline);
  Require(geometry.focal_length > 0 && std::isfinite(geometry.center_x + geometry.center_y));
}

// A calibration is read and rectified, or the reason is one line, which names file and line.
inline void CheckCalibration(const Texts& texts) {
  bool is_read = false;
  try {
    utils::stereo::StereoCalibration calibration = utils::stereo::ParseStereoCalibration(texts);
    is_read = true;
    if (calibration.has_rectification) CheckRectification(calibration);
    const bool sized = calibration.left.width != 0;
    ComputeRectification(calibration, sized ? calibration.left.width : 640,
                         sized ? calibration.left.height : 480);
    CheckRectification(calibration);
  } catch (const std::invalid_argument& error) {
    const std::string line = error.what();
    Require(std::all_of(line.begin(), line.end(), [](char c) { return c == '\t' || c >= ' '; }));
    const std::size_t colon = line.find(':');
    Require(is_read || std::any_of(texts.begin(), texts.end(), [&](const auto& text) {
              return line.substr(0, colon) == text.first && std::atoi(&line[colon + 1]) > 0;
            }));
  }
}

}  // namespace qx::fuzzing
