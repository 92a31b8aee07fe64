// Disparity maps of a rectified stereo pair.
//
//   using namespace qx::utils;
//   stereo::StereoOptions options;
//   options.disparities = 128;
//   stereo::StereoMatcher matcher(options);
//   const stereo::StereoResult result = matcher.Match(left, right);
//   const auto* disparity = reinterpret_cast<const std::uint16_t*>(result.disparity->Data());
//
// In a rectified pair, the point at (x, y) in the left picture is at (x - d, y) in the right one; d
// is its disparity. With a focal length of f pixels and cameras B metres apart, its depth is
// f * B / d metres. docs/stereo.md describes the method, its limits and its measured accuracy.
//
// Disparity maps are frames of kQXPixelFormatGray16, height x width x 1, native byte order, that
// own their bytes: value = disparity in pixels * 256, rounded; `scale` is 1/256. kMissingDisparity
// marks a pixel without a reliable match.
//
// Errors:  std::invalid_argument, with a text that names what is wrong, for options out of range
//          and for frames that are null, empty, of the wrong size or format, or too small for
//          their own shape; std::length_error when a result does not fit the 32 bits of
//          DataSize(); std::bad_alloc. Nothing is returned then, the inputs are unchanged, and the
//          matcher stays usable.
// Threads: every function is reentrant. One thread at a time uses a matcher; different matchers are
//          independent, except that those on the correlation kernel share its only compute unit
//          (see fpga_correlation.h). Rows are divided among the caller's OpenMP threads.
// Exact:   the same bytes for every instruction set, any number of threads and both back ends.
#pragma once

#include <cstdint>
#include <memory>

#include "qxtools/export.h"
#include "qxtools/image_frame.h"

namespace qx::utils::stereo {

// The value of a pixel without a reliable match.
constexpr std::uint16_t kMissingDisparity = 0xFFFF;

// Values of a disparity map per pixel of disparity; its `scale` is the reciprocal.
constexpr int kDisparityUnits = 256;

// The number of disparities that a map can hold: 0 .. 255.
constexpr int kMaxDisparities = 256;

// Where the cost volume is computed. All other stages run on the processor.
enum class StereoBackend : int {
  kProcessor = 0,
  // The correlation kernel of fpga_correlation.h, which is opened with the first pair and kept for
  // all pairs of that size. The emulated board's built-in container takes any size; any other
  // container has its own.
  kFpga = 1,
};

struct StereoOptions {
  // Matches are searched first_disparity .. first_disparity + disparities - 1 columns further left
  // in the right picture: at least 1 disparity, all within 0 .. 255.
  int disparities = 64;
  int first_disparity = 0;
  StereoBackend backend = StereoBackend::kProcessor;
  bool fill = true;         // compute StereoResult::filled
  bool confidence = false;  // compute StereoResult::confidence

  // The cost of a disparity change between neighbouring pixels: slant_penalty for a change by one
  // (a slanted surface), jump_penalty for a larger one (another object), which falls to a fifth
  // where the left picture has an edge. 0 <= slant_penalty <= 95, slant_penalty <= jump_penalty,
  // and the sum is at most 191. Unrelated pixels cost about 62 more than a perfect match. Larger
  // penalties give smoother maps.
  int slant_penalty = 20;
  int jump_penalty = 150;

  // The number of directions from which costs are aggregated: 8, or 4 (left, right, above, below),
  // which is faster.
  int paths = 8;
};

// Seconds that each stage of the last call took. Stages that are computed together count under the
// first of them.
struct StereoTimes {
  double features = 0;     // the two feature maps
  double cost = 0;         // their cost volume
  double aggregation = 0;  // path costs and their sums
  double selection = 0;    // disparities, left-right check, median, speckles
  double filling = 0;
};

struct StereoResult {
  std::shared_ptr<velkar::vision::ImageFrameImpl> disparity;  // with gaps
  std::shared_ptr<velkar::vision::ImageFrameImpl> filled;     // without; empty unless asked for
  // kQXPixelFormatGray8 of the same size, scale 1/255; empty unless asked for. 0 where `disparity`
  // is missing; otherwise 255 times the probability that it is off by at most 1 pixel, measured
  // with the default options. On average over three pairs this held for 52 % of the pixels with
  // values of 121 .. 152, 70 % with 153 .. 203, 88 % with 204 .. 241, and 98 % above that.
  // docs/stereo.md has the table for each pair.
  std::shared_ptr<velkar::vision::ImageFrameImpl> confidence;
};

struct MatcherState;

// Matches pair after pair and keeps its buffers for the next one.
class QXTOOLS_EXPORT StereoMatcher {
 public:
  // Errors: std::invalid_argument when an option is out of range. Buffers are allocated and the
  //         correlation kernel is opened with the first pair.
  explicit StereoMatcher(const StereoOptions& options);
  ~StereoMatcher();
  StereoMatcher(StereoMatcher&& other) noexcept;
  StereoMatcher& operator=(StereoMatcher&& other) noexcept;

  // Matches a pair.
  //
  // Inputs:  left, right  of the same size, borrowed for the call: kQXPixelFormatGray8, or a 4:2:0
  //                       format, whose luma is read in place. The pitch of a decoder's frame
  //                       comes from LayoutOf(); rows of other frames follow without gaps.
  // Returns: the maps that the options select.
  // Errors:  as at the top; with StereoBackend::kFpga also what Kernel_FPGA reports.
  // Memory:  2 bytes per pixel and disparity, and 70 per pixel, kept for the next pair. From the
  //          second pair of a size on, only the results are allocated, and what Kernel_FPGA takes.
  StereoResult Match(const std::shared_ptr<velkar::vision::ImageFrame>& left,
                     const std::shared_ptr<velkar::vision::ImageFrame>& right);

  // Matches a pair that the caller's own feature maps describe, for example those of a network.
  //
  // Inputs:  left_map, right_map  as CostVolume() takes them: kQXPixelFormatUint8, H x W x C values
  //                               of int8, C a multiple of 32; column x of right_map describes
  //                               column x - first_disparity of the right picture, as in
  //                               ComputeFeatures(). Costs assume that the volume of an output
  //                               frame of scale 1 holds about 124 for a perfect match and about 0
  //                               for none; set the maps' scales accordingly.
  //          guide                the left picture, as for Match(): its edges are where disparities
  //                               are expected to change.
  StereoResult MatchFeatures(const std::shared_ptr<velkar::vision::ImageFrame>& left_map,
                             const std::shared_ptr<velkar::vision::ImageFrame>& right_map,
                             const std::shared_ptr<velkar::vision::ImageFrame>& guide);

  // Returns: the times of the last Match() or MatchFeatures() that succeeded; zeros before it.
  [[nodiscard]] StereoTimes LastTimes() const;

 private:
  std::unique_ptr<MatcherState> state_;
};

// The steps of StereoMatcher::Match() on their own. Each allocates what it works with; the results
// own their bytes. This gives the bytes of Match():
//
//   left_map = ComputeFeatures(left);  right_map = ComputeFeatures(right, options.first_disparity);
//   image::CostVolume(left_map.get(), right_map.get(), volume);  // H x W x disparities, scale 1
//   sums = AggregateCosts(volume, left, options);
//   result = SelectDisparities(sums, options);
//   filled = FillDisparities(result.disparity);

// Describes each pixel by its neighbourhood so that the dot product of two descriptions is the
// correlation coefficient of the two neighbourhoods.
//
// Inputs:  picture  as for StereoMatcher::Match().
//          shift    0 .. 255: column x of the map describes column x - shift of the picture, and
//                   columns x < shift are zeros. With a right map shifted by s, the disparities
//                   of CostVolume() are s, s + 1, ...
// Returns: H x W x 32 int8 in a frame of kQXPixelFormatUint8 whose scale makes CostVolume() write
//          about 124 for a perfect match, given an output frame of scale 1.
QXTOOLS_EXPORT std::shared_ptr<velkar::vision::ImageFrameImpl> ComputeFeatures(
    const std::shared_ptr<velkar::vision::ImageFrame>& picture, int shift = 0);

// Semi-global aggregation: adds up, for every pixel and disparity, the costs of the cheapest paths
// that lead to it through its neighbours.
//
// Inputs:  volume   what CostVolume() writes: kQXPixelFormatUint8, H x W x D bytes of int8, large
//                   where pixels match. Cells whose right pixel would lie left of the picture
//                   (d + first_disparity > x) count as unknown, whatever they hold.
//          guide    the left picture, H x W.
//          options  first_disparity, the penalties and `paths`; D is the volume's.
// Returns: H x W x D sums in a frame of kQXPixelFormatGray16; smaller is better.
QXTOOLS_EXPORT std::shared_ptr<velkar::vision::ImageFrameImpl> AggregateCosts(
    const std::shared_ptr<velkar::vision::ImageFrame>& volume,
    const std::shared_ptr<velkar::vision::ImageFrame>& guide, const StereoOptions& options);

// Chooses the cheapest disparity of each pixel, refines it by the parabola through its neighbours,
// drops it where the right picture's pixels prefer another one (left-right check), and cleans the
// map: a median of 3 x 3, then patches of fewer than 100 pixels are dropped.
//
// Inputs:  sums     as AggregateCosts() returns them.
//          options  first_disparity and `confidence`; D is the sums'.
// Returns: `disparity`, and `confidence` if asked for; never `filled`.
QXTOOLS_EXPORT StereoResult SelectDisparities(
    const std::shared_ptr<velkar::vision::ImageFrame>& sums, const StereoOptions& options);

// Fills the gaps of a disparity map from the background: most gaps are surfaces that a nearer
// object hides from the right camera.
//
// Inputs:  disparity  kQXPixelFormatGray16 with kMissingDisparity in its gaps.
// Returns: a map in which nothing is missing; all 0 when everything was.
QXTOOLS_EXPORT std::shared_ptr<velkar::vision::ImageFrameImpl> FillDisparities(
    const std::shared_ptr<velkar::vision::ImageFrame>& disparity);

}  // namespace qx::utils::stereo
