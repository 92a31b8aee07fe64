#include "qx_utils/image/ffmpeg/scale.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "qx_utils/image/ffmpeg/planes.h"
#include "qx_utils/image/ffmpeg/resample.h"
#include "qx_utils/image/ffmpeg/swscale.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace qx::utils::image::engine {
namespace {

// libswscale steps through its inputs in units of 1 / kOne, so that far outputs are off by up to
// half of that per output: an eighth of an input at this size.
constexpr int kMaxSide = 16384;
constexpr double kOne = 65536;
// It takes steps as close to one as this for one.
constexpr double kNoStep = 10;
// Its means drop inputs for the last one or two outputs, and beyond this ratio it scales twice.
constexpr int kMaxShrinking = 64;
constexpr int kMinShrunk = 3;
// Its cubic becomes the nearest neighbour where the kernel is wider than the picture, and treats
// borders in its own way.
constexpr int kMinGrown = 16;

// Whether libswscale's filter does what resample.h defines.
bool IsExact(int source, int target) {
  if (source == target) return true;
  if (std::max(source, target) > kMaxSide) return false;
  if (std::abs(source * kOne / target - kOne) <= kNoStep) return false;
  if (source < target) return source >= kMinGrown;
  return target >= kMinShrunk && source / target < kMaxShrinking;
}

void ScaleArea(const PictureView& source, const PictureView& target) {
  ScaleInto(source, target, SWS_AREA | SWS_ACCURATE_RND);
}

void ScaleCubic(const PictureView& source, const PictureView& target) {
  ScaleInto(source, target, SWS_BICUBIC | SWS_ACCURATE_RND);
}

// One step: what is done, and the size after it.
struct Pass {
  void (*run)(const PictureView& source, const PictureView& target);
  int width;
  int height;
};

// For all planes.
struct ExactAxes {
  bool columns = true;
  bool rows = true;
};

ExactAxes ExactAxesOf(const PictureView& source, const PictureView& target) {
  const Planes from = PlanesOf(source), to = PlanesOf(target);
  ExactAxes exact;
  for (std::size_t i = 0; i < static_cast<std::size_t>(to.count); ++i) {
    exact.columns = exact.columns && IsExact(from.plane[i].width, to.plane[i].width);
    exact.rows = exact.rows && IsExact(from.plane[i].height, to.plane[i].height);
  }
  return exact;
}

// First what makes the picture smaller, then what makes it larger.
std::vector<Pass> PassesFor(const PictureView& source, const PictureView& target) {
  const ExactAxes exact = ExactAxesOf(source, target);
  std::vector<Pass> passes;
  int width = source.width, height = source.height;
  const auto add = [&](auto* run, int new_width, int new_height) {
    if (new_width == width && new_height == height) return;
    passes.push_back({run, width = new_width, height = new_height});
  };
  const int less_width = std::min(source.width, target.width);
  const int less_height = std::min(source.height, target.height);
  if (!exact.rows) add(ResampleRows, width, less_height);
  if (!exact.columns) add(ResampleColumns, less_width, height);
  add(ScaleArea, less_width, less_height);
  add(ScaleCubic, exact.columns ? target.width : width, exact.rows ? target.height : height);
  add(ResampleColumns, target.width, height);
  add(ResampleRows, target.width, target.height);
  return passes;
}

}  // namespace

FramePtr ScaledPicture(const PictureView& picture, QXPixelFormat format, std::size_t width,
                       std::size_t height) {
  FramePtr result = NewPicture(format, width, height, picture.coding);
  const PictureView target = ViewOf(result);
  const std::vector<Pass> passes = PassesFor(picture, target);
  if (passes.empty()) CopySamples(picture, target);
  PictureView source = picture;
  FramePtr between;  // what `source` is in, after the first pass
  for (const Pass& pass : passes) {
    const bool last = &pass == &passes.back();
    const FramePtr next = last ? result
                               : NewPicture(format, static_cast<std::size_t>(pass.width),
                                            static_cast<std::size_t>(pass.height), picture.coding);
    pass.run(source, ViewOf(next));
    source = ViewOf(next);
    between = next;
  }
  return result;
}

FramePtr ResizePicture(const FramePtr& frame, std::size_t width, std::size_t height) {
  const PictureView picture = ViewOf(frame);
  return ScaledPicture(picture, frame->pixel_format, width, height);
}

}  // namespace qx::utils::image::engine
