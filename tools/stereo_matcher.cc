#include "tools/stereo_matcher.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "qxtools/image_frame.h"
#include "tools/stereo_features.h"
#include "tools/stereo_filling.h"

namespace qx::tools {
namespace {

constexpr int kSmallestPatch = 100;  // px; about the area of an 11 x 9 block

}  // namespace

Volume<const std::int8_t> StereoMatcher::Correlate(const GrayPicture& left,
                                                   const GrayPicture& right, StageTimes& times) {
  std::shared_ptr<velkar::vision::ImageFrameImpl> left_map, right_map;
  {
    const StageTimer timer(times.features);
    left_map = ComputeFeatures(left);
    right_map = ComputeFeatures(right);
  }
  const StageTimer timer(times.cost);
  const Volume<const std::int8_t> empty{left.width, left.height, disparities_, nullptr};
  correlation_.resize(empty.size());
  const auto output = velkar::vision::ImageFrameImpl::Create(
      kQXPixelFormatUint8, correlation_.data(), left_map->Height(), left_map->Width(),
      static_cast<std::uint32_t>(disparities_));
  if (!output) {
    throw std::runtime_error("the cost volume of " + std::to_string(left.width) + " x " +
                             std::to_string(left.height) + " pixels and " +
                             std::to_string(disparities_) + " disparities is above 4 GiB");
  }
  output->scale = OutputScale();
  cost_.Compute(left_map.get(), right_map.get(), output.get());
  return {left.width, left.height, disparities_,
          reinterpret_cast<const std::int8_t*>(correlation_.data())};
}

MatchResult StereoMatcher::Match(const GrayPicture& left, const GrayPicture& right,
                                 StageTimes& times) {
  const Volume<const std::int8_t> correlation = Correlate(left, right, times);
  const StageTimer timer(times.disparity);
  sums_.resize(correlation.size());
  const Volume<std::int16_t> sums{left.width, left.height, disparities_, sums_.data()};
  SumPathCosts(correlation, left, sums);
  DisparityMap measured =
      MedianFilter(SelectDisparities({left.width, left.height, disparities_, sums_.data()}), 1);
  RemoveSpeckles(kSmallestPatch, measured);
  DisparityMap filled = FillMissing(measured);
  return {std::move(measured), std::move(filled)};
}

}  // namespace qx::tools
