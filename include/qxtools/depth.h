// Depth maps and point clouds from disparity maps.
//
//   using namespace qx::utils;
//   const stereo::StereoRectifier rectifier(calibration, width, height);
//   const stereo::RectifiedPair pair = rectifier.Rectify(left, right);
//   const stereo::StereoResult result = matcher.Match(pair.left, pair.right);
//   rectifier.DropUncovered(*result.disparity);
//   const stereo::DepthMap depth = ComputeDepth(result.disparity, rectifier.Geometry());
//   const float distance = depth.Row(y)[x];  // in the calibration's unit, often metres
//
// Depth is the distance from the rectified left camera along its optical axis:
//
//   z = focal_length * baseline / (disparity - (center_x - center_x_right))
//
// in the unit of the baseline. Points are in the coordinates of that camera: x to the right, y
// down, z ahead, in the same unit:
//
//   x = (column - center_x) * z / focal_length        y = (row - center_y) * z / focal_length
//
// Two depths are not numbers of the unit, as in ROS's REP 118: NaN is missing, and +infinity is a
// match at infinity, whose disparity is center_x - center_x_right or less.
//
// A disparity that is off by e pixels makes the depth wrong by about
// z * z / (focal_length * baseline) * e: with the square of the distance.
//
// Errors:  std::invalid_argument, with a text that names what is wrong, for a geometry or limits
//          out of range and for frames that are null, empty, of the wrong size or format, or too
//          small for their own shape; std::length_error when a result does not fit the 32 bits of
//          DataSize(); std::bad_alloc. Nothing is returned then, and the inputs are unchanged.
// Threads: every function is reentrant. Rows are divided among the caller's OpenMP threads.
// Exact:   the same bytes for every number of threads and on every processor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "qxtools/export.h"
#include "qxtools/image_frame.h"
#include "qxtools/stereo_camera.h"

namespace qx::utils::stereo {

// A picture of height x width floats, row by row without padding, which it owns: depths in the unit
// of the calibration, NaN where one is missing. (Frames have no format for floats.)
//
// Moved, not copied; a map that was moved from is empty. Threads: no lock; any number of threads
// may read at once.
class QXTOOLS_EXPORT DepthMap {
 public:
  DepthMap() = default;  // empty: 0 x 0

  // All values are missing.
  // Errors: std::bad_alloc.
  DepthMap(std::uint32_t width, std::uint32_t height);

  DepthMap(DepthMap&& other) noexcept;
  DepthMap& operator=(DepthMap&& other) noexcept;
  ~DepthMap();

  [[nodiscard]] std::uint32_t Width() const { return width_; }
  [[nodiscard]] std::uint32_t Height() const { return height_; }

  // Returns: the Width() values of row y, which must be below Height(). The next row follows them.
  [[nodiscard]] float* Row(std::uint32_t y) { return values_.get() + std::size_t{y} * width_; }
  [[nodiscard]] const float* Row(std::uint32_t y) const {
    return values_.get() + std::size_t{y} * width_;
  }

 private:
  friend struct DepthMapAccess;

  std::uint32_t width_ = 0;
  std::uint32_t height_ = 0;
  std::unique_ptr<float[]> values_;
};

// What is kept; all other pixels become missing.
struct DepthLimits {
  // Depths in the unit of the calibration, both included, 0 <= nearest <= farthest. A finite
  // `farthest` also drops what is at infinity.
  double nearest = 0;
  double farthest = std::numeric_limits<double>::infinity();

  // 0 .. 255, as in StereoResult::confidence: 1 or more needs a confidence map, and drops the
  // pixels that were filled.
  int least_confidence = 0;
};

// Inputs:  disparity   kQXPixelFormatGray16, height x width x 1, as StereoMatcher returns it:
//                      pixels * kDisparityUnits, or kMissingDisparity. Borrowed for the call.
//          geometry    of the rectified pair, focal_length and baseline above 0.
//          confidence  kQXPixelFormatGray8 of the same size, or null. Borrowed for the call.
// Returns: the depth of every pixel, by the formula at the top; missing where the disparity is
//          missing or a limit drops it. Computed in float: within 1e-6 of the exact depth, relative
//          to it, where the principal points agree; otherwise the disparity's offset is rounded to
//          float as well.
// Cost:    a pass over the disparities, about as fast as memory.
QXTOOLS_EXPORT DepthMap
ComputeDepth(const std::shared_ptr<velkar::vision::ImageFrame>& disparity,
             const StereoGeometry& geometry, const DepthLimits& limits = {},
             const std::shared_ptr<velkar::vision::ImageFrame>& confidence = nullptr);

// Depth as integers, for programs that read 16-bit pictures.
//
// Inputs:  millimetres_per_unit  of the depth map's unit: 1000 for metres, 25.4 for inches.
// Returns: kQXPixelFormatGray16, height x width x 1: millimetres, rounded to the nearest number, a
//          half upwards. 1 .. 65535; 0 where the depth is missing, at infinity, below half a
//          millimetre or not below 65535.5 mm. `scale` is 0.001: value * scale is in metres.
QXTOOLS_EXPORT std::shared_ptr<velkar::vision::ImageFrameImpl> DepthInMillimetres(
    const DepthMap& depth, double millimetres_per_unit);

struct Point {
  float x, y, z;  // in the depth map's unit, in the coordinates at the top
  std::uint8_t r, g, b;
  std::uint8_t confidence;  // 0 .. 255 as in StereoResult::confidence; 0 without such a map
};

// Inputs:  depth       as ComputeDepth() returns it, with the geometry that made it.
//          picture     the rectified left picture of the same size, for colours:
//                      kQXPixelFormatRGB888, or kQXPixelFormatGray8 or a 4:2:0 format, whose luma
//                      becomes grey (the pitch of a decoder's frame comes from LayoutOf()). Null:
//                      points are white.
//          confidence  kQXPixelFormatGray8 of the same size, or null.
//          Both are borrowed for the call.
// Returns: a point for every pixel whose depth is finite, row by row from the left.
QXTOOLS_EXPORT std::vector<Point> ComputePoints(
    const DepthMap& depth, const StereoGeometry& geometry,
    const std::shared_ptr<velkar::vision::ImageFrame>& picture = nullptr,
    const std::shared_ptr<velkar::vision::ImageFrame>& confidence = nullptr);

}  // namespace qx::utils::stereo
