// What `qxtools stereo` does with its inputs: decode, match and write, each on its own thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "qxtools/stereo_matcher.h"
#include "tools/depth_outputs.h"
#include "tools/image.h"
#include "tools/pair_matcher.h"
#include "tools/pictures/disparity_picture.h"
#include "tools/stereo_inputs.h"

namespace qx::tools {

struct StereoJob {
  StereoInputs inputs;
  std::string directory;
  utils::stereo::StereoOptions matching;
  std::string format = "pgm";  // of the files to compute with
  std::string ground_truth;    // picture file; empty: none
  double ground_truth_scale = 1;
  DepthJob depth;  // needs a calibration
};

// Shares of the pixels whose true disparity is known, 0 .. 1. Missing pixels count as off.
struct Accuracy {
  double missing = 0;
  double off_1 = 0;  // by more than 1 pixel
  double off_2 = 0;  // by more than 2 pixels
};

struct StereoSummary {
  std::size_t frames = 0;
  int width = 0;
  int height = 0;
  // Shares of the pixels that the left camera sees: all of them unless the pictures are raw.
  double missing = 0;     // have no reliable match
  double with_depth = 0;  // have a depth

  // Seconds, of all frames.
  double decode = 0;
  double write = 0;
  PairTimes stages;
  double elapsed = 0;  // less than the sum, as the stages overlap

  // Of the first pair, before and after filling; empty without ground truth.
  std::optional<Accuracy> before;
  std::optional<Accuracy> after;
};

// Inputs: truth  of the map's size; grey value = disparity * scale, 0 where it is not known.
// Errors: std::runtime_error when the sizes differ or no pixel is known.
Accuracy Evaluate(const DisparityImage& map, const Image<std::uint8_t>& truth, double scale);

// Runs the job. A stage gets at most a few pairs ahead of the next one, so memory is bounded and a
// clip runs at the pace of its slowest stage. The calling thread writes the files. It should be the
// main one, to which Linux delivers SIGINT, SIGTERM and SIGHUP: see OutputFile.
//
// Errors: std::exception whose text names the input or output and the reason. The files of the
//         pairs before the failure are complete and stay.
StereoSummary RunStereo(const StereoJob& job);

}  // namespace qx::tools
