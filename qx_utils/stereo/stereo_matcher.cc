#include "qxtools/stereo_matcher.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qx_utils/stereo/correlation.h"
#include "qx_utils/stereo/frames.h"
#include "qx_utils/stereo/interim.h"

namespace qx::utils::stereo {
namespace {

constexpr int kSmallestPatch = 100;  // px; about the area of an 11 x 9 block
constexpr float kDisparityScale = 1.0F / kDisparityUnits;

// Scale of a feature map. The kernel in programmable logic knows the product of two only as a power
// of two; with 1/16 it makes 252 * 252 / 16 / 32 channels = 124.03 of a perfect match.
constexpr float kMapScale = 0.25F;

[[noreturn]] void Refuse(const char* option, int value, const char* range) {
  throw std::invalid_argument(std::string("StereoOptions::") + option + " is " +
                              std::to_string(value) + ", not " + range);
}

void CheckFirst(int first) {
  if (first < 0 || first >= kMaxDisparities) Refuse("first_disparity", first, "0 .. 255");
}

void CheckPaths(const StereoOptions& options) {
  if (options.jump_penalty < 0 || options.jump_penalty > 255) {
    Refuse("jump_penalty", options.jump_penalty, "0 .. 255");
  }
  if (options.slant_penalty < 0 || options.slant_penalty > options.jump_penalty) {
    Refuse("slant_penalty", options.slant_penalty, "0 .. jump_penalty");
  }
  if (options.paths != 4 && options.paths != 8) Refuse("paths", options.paths, "4 or 8");
}

void CheckRange(std::size_t disparities, int first) {
  CheckFirst(first);
  if (disparities < 1 || disparities > static_cast<std::size_t>(kMaxDisparities - first)) {
    throw std::invalid_argument("disparities " + std::to_string(first) + " .. " +
                                std::to_string(static_cast<std::size_t>(first) + disparities - 1) +
                                " are not all within 0 .. 255");
  }
}

void CheckSameSize(std::size_t width, std::size_t height, const char* name, const GreyView& other,
                   const char* other_name) {
  if (width == other.width && height == other.height) return;
  throw std::invalid_argument(std::string(name) + " is " + std::to_string(width) + " x " +
                              std::to_string(height) + " pixels, " + other_name + " " +
                              std::to_string(other.width) + " x " + std::to_string(other.height));
}

// Adds the time from its construction to its destruction to a stage.
class StageTimer {
 public:
  explicit StageTimer(double& seconds) : seconds_(seconds) {}
  ~StageTimer() {
    seconds_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }
  StageTimer(const StageTimer&) = delete;
  StageTimer& operator=(const StageTimer&) = delete;

 private:
  double& seconds_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

FrameImplPtr NewMap(const DisparityMap& map) {
  auto frame =
      NewFrame(kQXPixelFormatGray16,
               {static_cast<std::size_t>(map.height), static_cast<std::size_t>(map.width), 1},
               kDisparityScale);
  std::copy(map.values.begin(), map.values.end(), ValuesOf<std::uint16_t>(frame));
  return frame;
}

StereoResult Select(const Volume<const std::int16_t>& sums, const StereoOptions& options) {
  DisparityMap map = MedianFilter(SelectDisparityMap(sums), 1);
  RemoveSpeckles(kSmallestPatch, map);
  StereoResult result;
  result.disparity = NewMap(map);
  if (!options.confidence) return result;
  const Shape shape{static_cast<std::size_t>(map.height), static_cast<std::size_t>(map.width), 1};
  result.confidence = NewFrame(kQXPixelFormatGray8, shape, 1.0F / 255);
  std::transform(map.values.begin(), map.values.end(), result.confidence->Data(),
                 [](std::uint16_t d) { return d == kMissingDisparity ? 0 : 230; });
  return result;
}

}  // namespace

struct StereoMatcher::State {
  explicit State(const StereoOptions& checked) : options(checked) {}

  std::size_t Disparities() const { return static_cast<std::size_t>(options.disparities); }

  // Maps to results; `times` has the times so far.
  StereoResult MatchMaps(const FeatureMaps& maps, const GreyView& guide, StereoTimes& now);

  const StereoOptions options;
  CorrelationUnit unit;
  StereoTimes times;
  std::vector<std::int8_t> left, right;  // feature maps
  std::vector<std::int8_t> correlation;
  std::vector<std::int16_t> sums;
};

StereoResult StereoMatcher::State::MatchMaps(const FeatureMaps& maps, const GreyView& guide,
                                             StereoTimes& now) {
  const int width = static_cast<int>(guide.width), height = static_cast<int>(guide.height);
  const auto volume = guide.width * guide.height * Disparities();
  {
    const StageTimer timer(now.cost);
    correlation.resize(volume);
    if (options.backend == StereoBackend::kFpga) {
      unit.Compute(maps, Disparities(), correlation.data());
    } else {
      ComputeCorrelation(maps, Disparities(), correlation.data());
    }
  }
  {
    const StageTimer timer(now.aggregation);
    sums.resize(volume);
    SumPathCosts({width, height, options.disparities, options.first_disparity, correlation.data()},
                 {guide, 2 * options.slant_penalty, 2 * options.jump_penalty},
                 {width, height, options.disparities, options.first_disparity, sums.data()});
  }
  StereoResult result;
  {
    const StageTimer timer(now.selection);
    result =
        Select({width, height, options.disparities, options.first_disparity, sums.data()}, options);
  }
  const StageTimer timer(now.filling);
  if (options.fill) result.filled = FillDisparities(result.disparity);
  return result;
}

StereoMatcher::StereoMatcher(const StereoOptions& options) {
  if (options.disparities < 1) Refuse("disparities", options.disparities, "1 .. 256");
  CheckRange(static_cast<std::size_t>(options.disparities), options.first_disparity);
  CheckPaths(options);
  state_ = std::make_unique<State>(options);
}

StereoMatcher::~StereoMatcher() = default;
StereoMatcher::StereoMatcher(StereoMatcher&& other) noexcept = default;
StereoMatcher& StereoMatcher::operator=(StereoMatcher&& other) noexcept = default;

StereoResult StereoMatcher::Match(const FramePtr& left, const FramePtr& right) {
  const GreyView left_view = LumaOf(left, "left"), right_view = LumaOf(right, "right");
  CheckSameSize(left_view.width, left_view.height, "left", right_view, "right");
  const Shape shape{left_view.height, left_view.width, kFeatureChannels};
  StereoTimes now;
  {
    const StageTimer timer(now.features);
    state_->left.resize(shape.Values());
    state_->right.resize(shape.Values());
    ComputeFeatureMap(left_view, 0, state_->left.data());
    ComputeFeatureMap(right_view, static_cast<std::size_t>(state_->options.first_disparity),
                      state_->right.data());
  }
  StereoResult result = state_->MatchMaps(
      {state_->left.data(), state_->right.data(), shape, kMapScale * kMapScale}, left_view, now);
  state_->times = now;
  return result;
}

StereoResult StereoMatcher::MatchFeatures(const FramePtr& left_map, const FramePtr& right_map,
                                          const FramePtr& guide) {
  const Shape shape = ShapeOf(left_map, kQXPixelFormatUint8, 1, "left_map");
  const Shape right_shape = ShapeOf(right_map, kQXPixelFormatUint8, 1, "right_map");
  if (!(shape == right_shape)) {
    throw std::invalid_argument("left_map is " + Text(shape) + ", right_map " + Text(right_shape));
  }
  if (shape.channels % kFeatureChannels != 0) {
    throw std::invalid_argument("the maps have " + std::to_string(shape.channels) +
                                " channels, not a multiple of 32");
  }
  const GreyView view = LumaOf(guide, "guide");
  CheckSameSize(shape.width, shape.height, "left_map", view, "guide");
  StereoTimes now;
  StereoResult result = state_->MatchMaps({reinterpret_cast<const std::int8_t*>(left_map->Data()),
                                           reinterpret_cast<const std::int8_t*>(right_map->Data()),
                                           shape, right_map->scale * left_map->scale},
                                          view, now);
  state_->times = now;
  return result;
}

StereoTimes StereoMatcher::LastTimes() const { return state_->times; }

FrameImplPtr ComputeFeatures(const FramePtr& picture, int shift) {
  const GreyView view = LumaOf(picture, "picture");
  if (shift < 0 || shift >= kMaxDisparities) {
    throw std::invalid_argument("shift is " + std::to_string(shift) + ", not 0 .. 255");
  }
  auto map = NewFrame(kQXPixelFormatUint8, {view.height, view.width, kFeatureChannels}, kMapScale);
  ComputeFeatureMap(view, static_cast<std::size_t>(shift), ValuesOf<std::int8_t>(map));
  return map;
}

FrameImplPtr AggregateCosts(const FramePtr& volume, const FramePtr& guide,
                            const StereoOptions& options) {
  const Shape shape = ShapeOf(volume, kQXPixelFormatUint8, 1, "volume");
  const GreyView view = LumaOf(guide, "guide");
  CheckSameSize(shape.width, shape.height, "volume", view, "guide");
  CheckRange(shape.channels, options.first_disparity);
  CheckPaths(options);
  auto sums = NewFrame(kQXPixelFormatGray16, shape, 1);
  const int width = static_cast<int>(shape.width), height = static_cast<int>(shape.height),
            disparities = static_cast<int>(shape.channels);
  SumPathCosts({width, height, disparities, options.first_disparity,
                reinterpret_cast<const std::int8_t*>(volume->Data())},
               {view, 2 * options.slant_penalty, 2 * options.jump_penalty},
               {width, height, disparities, options.first_disparity, ValuesOf<std::int16_t>(sums)});
  return sums;
}

StereoResult SelectDisparities(const FramePtr& sums, const StereoOptions& options) {
  const Shape shape = ShapeOf(sums, kQXPixelFormatGray16, 2, "sums");
  CheckRange(shape.channels, options.first_disparity);
  return Select({static_cast<int>(shape.width), static_cast<int>(shape.height),
                 static_cast<int>(shape.channels), options.first_disparity,
                 reinterpret_cast<const std::int16_t*>(sums->Data())},
                options);
}

FrameImplPtr FillDisparities(const FramePtr& disparity) {
  const Shape shape = ShapeOf(disparity, kQXPixelFormatGray16, 2, "disparity");
  if (shape.channels != 1) {
    throw std::invalid_argument("disparity: " + Text(shape) + " values, not one a pixel");
  }
  DisparityMap map(static_cast<int>(shape.width), static_cast<int>(shape.height));
  const auto* values = reinterpret_cast<const std::uint16_t*>(disparity->Data());
  std::copy_n(values, shape.Values(), map.values.begin());
  return NewMap(FillMissing(map));
}

}  // namespace qx::utils::stereo
