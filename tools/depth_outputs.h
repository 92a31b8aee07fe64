// What `qxtools stereo` writes of depth.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "qxtools/depth.h"
#include "qxtools/stereo_matcher.h"
#include "tools/image.h"

namespace qx::tools {

struct DepthJob {
  bool maps = false;    // depth-NNNN.pfm and depth-NNNN.png
  bool points = false;  // points-NNNN.ply
  utils::stereo::DepthLimits limits;
  double millimetres = 1000;  // in a unit of the calibration

  bool IsWanted() const { return maps || points; }
};

struct DepthResult {
  utils::stereo::DepthMap map;
  FramePtr millimetres;  // empty unless maps are wanted
  std::vector<utils::stereo::Point> points;
  bool has_confidence = false;
  std::size_t known = 0;  // pixels with a depth, those at infinity not counted
};

// Depth of the reliable matches: pixels that were filled have none.
//
// Inputs: picture  the rectified left one, for the colours of points.
// Errors: those of qxtools/depth.h.
DepthResult ComputeDepthResult(const DepthJob& job, const utils::stereo::StereoGeometry& geometry,
                               const utils::stereo::StereoResult& matches, const FramePtr& picture);

// Writes the files of frame `number` to a directory. Errors: those of OutputFile.
void WriteDepth(const DepthJob& job, const DepthResult& result, const std::string& directory,
                std::size_t number);

}  // namespace qx::tools
