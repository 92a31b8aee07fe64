// What happens to a pair of pictures between reading and writing: rectification, matching, depth.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "qxtools/stereo_matcher.h"
#include "tools/depth_outputs.h"
#include "tools/media/stereo_source.h"
#include "tools/pair_rectifier.h"

namespace qx::tools {

struct PairResult {
  utils::stereo::StereoResult matches;
  DepthResult depth;       // empty unless wanted
  std::size_t unseen = 0;  // pixels of the rectified left picture that its camera does not see
};

// Seconds of all pairs.
struct PairTimes {
  double rectification = 0;
  utils::stereo::StereoTimes matching;
  double depth = 0;  // and points
};

class PairMatcher {
 public:
  // Inputs: calibration  its files; empty: the pairs are rectified, and no depth is wanted.
  // Errors: std::invalid_argument when an option is out of range or the calibration is bad.
  PairMatcher(const utils::stereo::StereoOptions& matching,
              const std::vector<std::string>& calibration, const DepthJob& depth);

  // Errors: those of PairRectifier and StereoMatcher.
  PairResult Match(const PicturePair& pair);

  const PairTimes& Times() const { return times_; }

 private:
  PairResult MatchRaw(const PicturePair& pair);
  utils::stereo::StereoResult MatchRectified(const PicturePair& pair);

  bool fill_;
  DepthJob depth_;
  std::optional<PairRectifier> rectifier_;
  utils::stereo::StereoMatcher matcher_;
  PairTimes times_;
};

}  // namespace qx::tools
