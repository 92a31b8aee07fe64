// Chessboards found and calibrated with OpenCV, an independent judge of the library's depths.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/image.h"

namespace qx::bench {

// The picture's luma, borrowed.
cv::Mat MatOf(const tools::FramePtr& picture);

// Returns: the inner corners of a chessboard, row by row, to a fraction of a pixel; nothing when
//          the board was not found.
std::optional<std::vector<cv::Point2f>> FindCorners(const tools::FramePtr& picture, cv::Size board);

struct RawPair {
  std::string name;
  tools::FramePtr left, right;
};

// Calibrates a stereo camera from raw pairs of a board whose squares measure 1, and writes the
// cameras, their rotation and translation in OpenCV's YAML, without rectification transforms.
//
// Returns: the root mean square of the reprojection errors in pixels.
// Errors:  std::exception when fewer than three pairs show the board, or the file is not writable.
double Calibrate(const std::vector<RawPair>& pairs, cv::Size board, const std::string& file);

}  // namespace qx::bench
