#include "qxtools/stereo_matcher.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "qx_utils/stereo/cleaning.h"
#include "qx_utils/stereo/correlation.h"
#include "qx_utils/stereo/frames.h"
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

struct MatcherState {
  explicit MatcherState(const StereoOptions& checked) : options(checked) {}

  FeatureMaps Describe(const GreyView& left, const GreyView& right);
  StereoResult MatchMaps(const FeatureMaps& maps, const GreyView& guide);
  void Select(const FeatureMaps& maps, const GreyView& guide, const StereoResult& result);

  const StereoOptions options;
  StereoTimes now;   // of the call that runs
  StereoTimes last;  // of the last that succeeded
  std::vector<std::int8_t> left_map, right_map, correlation;
  CorrelationUnit unit;
  CorrelationOnDemand on_demand;
  SemiGlobalScratch semi_global;
  DisparityScratch maps_scratch;
};

FeatureMaps MatcherState::Describe(const GreyView& left, const GreyView& right) {
  const StageTimer timer(now.features);
  const Shape shape{left.height, left.width, kFeatureChannels};
  left_map.resize(shape.Values());
  right_map.resize(shape.Values());
  const auto shift = static_cast<std::size_t>(options.first_disparity);
  ComputeFeatureMap(ChosenFeatures(), left, 0, left_map.data());
  ComputeFeatureMap(ChosenFeatures(), right, shift, right_map.data());
  return {left_map.data(), right_map.data(), shape, kFeatureScale, kFeatureScale};
}

// From feature maps to disparities as the kernels choose them.
void MatcherState::Select(const FeatureMaps& maps, const GreyView& guide,
                          const StereoResult& result) {
  const auto disparities = static_cast<std::size_t>(options.disparities);
  correlation.resize(maps.shape.height * maps.shape.width * disparities);
  const bool on_board = options.backend == StereoBackend::kFpga;
  CorrelationRows rows;
  if (on_board) {
    const StageTimer timer(now.cost);
    unit.Compute(maps, disparities, correlation.data());
  } else {
    rows = on_demand.Prepare(maps, disparities, correlation.data());
  }
  const StageTimer timer(on_board ? now.aggregation : now.cost);
  const auto first = static_cast<std::size_t>(options.first_disparity);
  MatchVolume(ChosenSemiGlobal(),
              {correlation.data(), guide, guide.width, guide.height, disparities, first,
               options.slant_penalty, options.jump_penalty, options.paths},
              rows, semi_global, ValuesOf<std::uint16_t>(result.disparity),
              options.confidence ? result.confidence->Data() : nullptr);
}

StereoResult MatcherState::MatchMaps(const FeatureMaps& maps, const GreyView& guide) {
  StereoResult result;
  result.disparity = NewDisparityMap(guide.width, guide.height);
  if (options.confidence) result.confidence = NewConfidenceMap(guide.width, guide.height);
  if (options.fill) result.filled = NewDisparityMap(guide.width, guide.height);
  auto* const disparity = ValuesOf<std::uint16_t>(result.disparity);
  Select(maps, guide, result);
  {
    const StageTimer timer(now.selection);
    CleanDisparities(guide.width, guide.height, maps_scratch, disparity,
                     options.confidence ? result.confidence->Data() : nullptr);
  }
  if (options.fill) {
    const StageTimer timer(now.filling);
    FillMissing(ChosenMedian(), disparity, guide.width, guide.height, maps_scratch,
                ValuesOf<std::uint16_t>(result.filled));
  }
  last = now;
  return result;
}

StereoMatcher::StereoMatcher(const StereoOptions& options) {
  CheckOptions(options);
  state_ = std::make_unique<MatcherState>(options);
}

StereoMatcher::~StereoMatcher() = default;
StereoMatcher::StereoMatcher(StereoMatcher&& other) noexcept = default;
StereoMatcher& StereoMatcher::operator=(StereoMatcher&& other) noexcept = default;

StereoResult StereoMatcher::Match(const FramePtr& left, const FramePtr& right) {
  const GreyView left_view = LumaOf(left, "left"), right_view = LumaOf(right, "right");
  CheckSameSize({left_view.height, left_view.width, 1}, "left", right_view, "right");
  state_->now = {};
  return state_->MatchMaps(state_->Describe(left_view, right_view), left_view);
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
  state_->now = {};
  return state_->MatchMaps({reinterpret_cast<const std::int8_t*>(left_map->Data()),
                            reinterpret_cast<const std::int8_t*>(right_map->Data()), shape,
                            left_map->scale, right_map->scale},
                           view);
}

StereoTimes StereoMatcher::LastTimes() const { return state_->last; }

}  // namespace qx::utils::stereo
