// From two grey pictures to a disparity map, with the time that each stage takes.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "tools/stereo_backend.h"
#include "tools/stereo_disparity.h"
#include "tools/stereo_picture.h"

namespace qx::tools {

// Time that has gone into each stage so far. Decoding and writing are the caller's stages.
struct StageTimes {
  using Duration = std::chrono::duration<double>;
  Duration decode{0}, features{0}, cost{0}, disparity{0}, write{0};
};

// Adds the time from its construction to its destruction to one stage.
class StageTimer {
 public:
  explicit StageTimer(StageTimes::Duration& stage) : stage_(stage) {}
  ~StageTimer() { stage_ += std::chrono::steady_clock::now() - start_; }
  StageTimer(const StageTimer&) = delete;
  StageTimer& operator=(const StageTimer&) = delete;

 private:
  StageTimes::Duration& stage_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

struct MatchResult {
  DisparityMap measured;  // with kMissing where no reliable match was found
  DisparityMap filled;    // the same without gaps
};

// Matches picture after picture. Keeps its buffers, 3 bytes per pixel and disparity, for the next.
class StereoMatcher {
 public:
  // `disparities`: matches are searched 0 .. disparities - 1 columns further left in the right
  // picture. `backend`: where the cost volume is computed; the results are the same.
  StereoMatcher(int disparities, Backend backend) : disparities_(disparities), cost_(backend) {}

  // Matches a rectified pair of the same size.
  // Errors: std::runtime_error when the cost volume does not fit a frame, and what the board
  //         reports; std::bad_alloc.
  MatchResult Match(const GrayPicture& left, const GrayPicture& right, StageTimes& times);

 private:
  Volume<const std::int8_t> Correlate(const GrayPicture& left, const GrayPicture& right,
                                      StageTimes& times);

  int disparities_;
  CostBackend cost_;
  std::vector<std::uint8_t> correlation_;
  std::vector<std::int16_t> sums_;
};

}  // namespace qx::tools
