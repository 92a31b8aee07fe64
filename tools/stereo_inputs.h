// The arguments that name the pictures of two cameras and their calibration.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace qx::tools {

struct StereoInputs {
  std::string left;
  std::string right;  // empty: the pictures of `left` show both views side by side
  bool side_by_side = false;
  std::size_t frames = 0;                // 0: all
  std::vector<std::string> calibration;  // its files; empty: the pictures are rectified
};

// Adds LEFT, RIGHT, --side-by-side, --frames and --calibration, which is returned.
CLI::Option* AddStereoInputs(CLI::App& command, StereoInputs& inputs);

// Errors: CLI::ParseError when RIGHT is missing, or given although LEFT shows both views.
void CheckStereoInputs(const StereoInputs& inputs);

}  // namespace qx::tools
