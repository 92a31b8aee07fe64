// Calibration files as trees of YAML, before their meaning is known.
#pragma once

#include <string>

#include "qx_utils/stereo/camera/yaml_text.h"

namespace qx::utils::stereo {

struct CalibrationFile {
  std::string name;  // for messages
  YamlNode root;     // a map
};

// Returns: at most one byte more than a calibration file may have.
// Errors:  std::invalid_argument with the path.
std::string ReadCalibrationText(const std::string& path);

// Errors:  std::invalid_argument "name:line: ..." for what is too large, no text, or no YAML with
//          named values.
CalibrationFile ParseCalibrationFile(const std::string& name, const std::string& text);

}  // namespace qx::utils::stereo
