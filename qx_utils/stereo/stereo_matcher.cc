#include "qxtools/stereo_matcher.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qx_utils/stereo/cleaning.h"
#include "qx_utils/stereo/correlation.h"
#include "qx_utils/stereo/frames.h"
#include "qx_utils/stereo/interim.h"
#include "qx_utils/stereo/kernel_choice.h"
#include "qx_utils/stereo/options.h"

namespace qx::utils::stereo {
namespace {

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
  DisparityScratch scratch;
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
    result.disparity = NewDisparityMap(guide.width, guide.height);
    if (options.confidence) result.confidence = NewConfidenceMap(guide.width, guide.height);
    std::uint8_t* const confidence = options.confidence ? result.confidence->Data() : nullptr;
    auto* const disparity = ValuesOf<std::uint16_t>(result.disparity);
    SelectDisparityMap({width, height, options.disparities, options.first_disparity, sums.data()},
                       disparity);
    if (confidence != nullptr) std::fill_n(confidence, guide.width * guide.height, 230);
    CleanDisparities(guide.width, guide.height, scratch, disparity, confidence);
  }
  const StageTimer timer(now.filling);
  if (!options.fill) return result;
  result.filled = NewDisparityMap(guide.width, guide.height);
  FillMissing(ChosenMedian(), ValuesOf<std::uint16_t>(result.disparity), guide.width, guide.height,
              scratch, ValuesOf<std::uint16_t>(result.filled));
  return result;
}

StereoMatcher::StereoMatcher(const StereoOptions& options) {
  CheckOptions(options);
  state_ = std::make_unique<State>(options);
}

StereoMatcher::~StereoMatcher() = default;
StereoMatcher::StereoMatcher(StereoMatcher&& other) noexcept = default;
StereoMatcher& StereoMatcher::operator=(StereoMatcher&& other) noexcept = default;

StereoResult StereoMatcher::Match(const FramePtr& left, const FramePtr& right) {
  const GreyView left_view = LumaOf(left, "left"), right_view = LumaOf(right, "right");
  const Shape shape{left_view.height, left_view.width, kFeatureChannels};
  CheckSameSize(shape, "left", right_view, "right");
  StereoTimes now;
  {
    const StageTimer timer(now.features);
    state_->left.resize(shape.Values());
    state_->right.resize(shape.Values());
    ComputeFeatureMap(ChosenFeatures(), left_view, 0, state_->left.data());
    ComputeFeatureMap(ChosenFeatures(), right_view,
                      static_cast<std::size_t>(state_->options.first_disparity),
                      state_->right.data());
  }
  StereoResult result = state_->MatchMaps(
      {state_->left.data(), state_->right.data(), shape, kFeatureScale * kFeatureScale}, left_view,
      now);
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
  CheckSameSize(shape, "left_map", view, "guide");
  StereoTimes now;
  StereoResult result = state_->MatchMaps({reinterpret_cast<const std::int8_t*>(left_map->Data()),
                                           reinterpret_cast<const std::int8_t*>(right_map->Data()),
                                           shape, right_map->scale * left_map->scale},
                                          view, now);
  state_->times = now;
  return result;
}

StereoTimes StereoMatcher::LastTimes() const { return state_->times; }

}  // namespace qx::utils::stereo
