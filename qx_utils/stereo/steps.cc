#include <stdexcept>

#include "qx_utils/stereo/cleaning.h"
#include "qx_utils/stereo/correlation.h"
#include "qx_utils/stereo/frames.h"
#include "qx_utils/stereo/kernel_choice.h"
#include "qx_utils/stereo/options.h"
#include "qxtools/stereo_matcher.h"

namespace qx::utils::stereo {

FrameImplPtr ComputeFeatures(const FramePtr& picture, int shift) {
  const GreyView view = LumaOf(picture, "picture");
  CheckShift(shift);
  auto map =
      NewFrame(kQXPixelFormatUint8, {view.height, view.width, kFeatureChannels}, kFeatureScale);
  ComputeFeatureMap(ChosenFeatures(), view, static_cast<std::size_t>(shift),
                    ValuesOf<std::int8_t>(map));
  return map;
}

FrameImplPtr AggregateCosts(const FramePtr& volume, const FramePtr& guide,
                            const StereoOptions& options) {
  const Shape shape = ShapeOf(volume, kQXPixelFormatUint8, 1, "volume");
  const GreyView view = LumaOf(guide, "guide");
  CheckSameSize(shape, "volume", view, "guide");
  CheckRange(shape.channels, options);
  CheckPaths(options);
  auto sums = NewFrame(kQXPixelFormatGray16, shape, 1);
  SemiGlobalScratch scratch;
  AggregateCosts(ChosenSemiGlobal(),
                 {reinterpret_cast<const std::int8_t*>(volume->Data()), view, shape.width,
                  shape.height, shape.channels, static_cast<std::size_t>(options.first_disparity),
                  options.slant_penalty, options.jump_penalty, options.paths},
                 scratch, ValuesOf<std::uint16_t>(sums));
  return sums;
}

StereoResult SelectDisparities(const FramePtr& sums, const StereoOptions& options) {
  const Shape shape = ShapeOf(sums, kQXPixelFormatGray16, 2, "sums");
  CheckRange(shape.channels, options);
  StereoResult result;
  result.disparity = NewDisparityMap(shape.width, shape.height);
  if (options.confidence) result.confidence = NewConfidenceMap(shape.width, shape.height);
  std::uint8_t* const confidence = options.confidence ? result.confidence->Data() : nullptr;
  auto* const disparity = ValuesOf<std::uint16_t>(result.disparity);
  SemiGlobalScratch semi_global;
  SelectDisparities(ChosenSemiGlobal(), reinterpret_cast<const std::uint16_t*>(sums->Data()),
                    shape.width, shape.height, shape.channels,
                    static_cast<std::size_t>(options.first_disparity), semi_global, disparity,
                    confidence);
  DisparityScratch scratch;
  CleanDisparities(shape.width, shape.height, scratch, disparity, confidence);
  return result;
}

FrameImplPtr FillDisparities(const FramePtr& disparity) {
  const Shape shape = ShapeOf(disparity, kQXPixelFormatGray16, 2, "disparity");
  if (shape.channels != 1) {
    throw std::invalid_argument("disparity: " + Text(shape) + " values, not one for each pixel");
  }
  auto filled = NewDisparityMap(shape.width, shape.height);
  DisparityScratch scratch;
  FillMissing(ChosenMedian(), reinterpret_cast<const std::uint16_t*>(disparity->Data()),
              shape.width, shape.height, scratch, ValuesOf<std::uint16_t>(filled));
  return filled;
}

}  // namespace qx::utils::stereo
