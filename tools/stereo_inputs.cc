#include "tools/stereo_inputs.h"

#include <CLI/CLI.hpp>

#include "tools/commands.h"

namespace qx::tools {

CLI::Option* AddStereoInputs(CLI::App& command, StereoInputs& inputs) {
  command
      .add_option("LEFT", inputs.left,
                  "Left picture (PNG, JPEG, PGM, BMP, TIFF, ...) or H.264 video")
      ->type_name("")
      ->required();
  command.add_option("RIGHT", inputs.right, "Right one: the same size and number of frames")
      ->type_name("");
  command.add_flag("--side-by-side", inputs.side_by_side,
                   "LEFT shows both views: the left one in its left half");
  AcceptNumbers(
      command.add_option("--frames", inputs.frames, "Stop after N frames; default: after all"), 1);
  CLI::Option* calibration =
      command.add_option("--calibration", inputs.calibration,
                         "Calibration of raw cameras: OpenCV's YAML in one file or two, or ROS "
                         "camera_info files, left and right");
  return calibration->type_name("FILE...")->expected(1, 2);
}

void CheckStereoInputs(const StereoInputs& inputs) {
  if (inputs.right.empty() && !inputs.side_by_side) throw CLI::RequiredError("RIGHT");
  if (!inputs.right.empty() && inputs.side_by_side) {
    throw CLI::ValidationError("--side-by-side", "takes one input, which shows both views");
  }
}

}  // namespace qx::tools
