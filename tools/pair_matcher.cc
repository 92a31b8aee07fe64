#include "tools/pair_matcher.h"

#include "tools/stopwatch.h"

namespace qx::tools {
namespace {

using utils::stereo::StereoOptions;
using utils::stereo::StereoResult;
using utils::stereo::StereoTimes;

// After a rectification gaps are filled here, when the uncovered pixels are out of the map.
StereoOptions OptionsOf(const StereoOptions& matching, bool is_raw, const DepthJob& depth) {
  StereoOptions options = matching;
  options.fill = matching.fill && !is_raw;
  options.confidence = matching.confidence || depth.limits.least_confidence > 0;
  return options;
}

void Add(const StereoTimes& times, StereoTimes& sum) {
  sum.features += times.features;
  sum.cost += times.cost;
  sum.aggregation += times.aggregation;
  sum.selection += times.selection;
  sum.filling += times.filling;
}

}  // namespace

PairMatcher::PairMatcher(const StereoOptions& matching, const std::vector<std::string>& calibration,
                         const DepthJob& depth)
    : fill_(matching.fill),
      depth_(depth),
      matcher_(OptionsOf(matching, !calibration.empty(), depth)) {
  if (!calibration.empty()) rectifier_.emplace(calibration);
}

PairResult PairMatcher::Match(const PicturePair& pair) {
  return rectifier_ ? MatchRaw(pair) : PairResult{MatchRectified(pair), {}, 0};
}

StereoResult PairMatcher::MatchRectified(const PicturePair& pair) {
  StereoResult matches = matcher_.Match(pair.left, pair.right);
  Add(matcher_.LastTimes(), times_.matching);
  return matches;
}

PairResult PairMatcher::MatchRaw(const PicturePair& raw) {
  rectifier_->Prepare(raw);
  PicturePair pair;
  {
    const Stopwatch watch(times_.rectification);
    pair = rectifier_->Rectify(raw);
  }
  PairResult result{MatchRectified(pair), {}, rectifier_->Unseen()};
  {
    const Stopwatch watch(times_.rectification);
    rectifier_->Rectifier().DropUncovered(*result.matches.disparity);
  }
  if (fill_) {
    const Stopwatch watch(times_.matching.filling);
    result.matches.filled = utils::stereo::FillDisparities(result.matches.disparity);
    rectifier_->DropUnseen(*result.matches.filled);
  }
  if (!depth_.IsWanted()) return result;
  const Stopwatch watch(times_.depth);
  result.depth = ComputeDepthResult(depth_, rectifier_->Rectifier().Geometry(), result.matches,
                                    pair.left_colours ? pair.left_colours : pair.left);
  return result;
}

}  // namespace qx::tools
