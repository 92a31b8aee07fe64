// The arguments of `qxtools stereo` for depth.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "tools/depth_outputs.h"

namespace qx::tools {

struct DepthArguments {
  DepthJob job;
  std::string unit = "m";
  std::vector<CLI::Option*> details;  // options that mean nothing without an output
};

// Adds --depth, --points, --unit, --nearest, --farthest and --least-confidence.
//
// Inputs: calibration  the option that the outputs need.
void AddDepth(CLI::App& command, CLI::Option* calibration, DepthArguments& arguments);

// Returns: the job.
// Errors:  CLI::ParseError when the arguments do not go together.
DepthJob CheckDepth(const DepthArguments& arguments);

}  // namespace qx::tools
