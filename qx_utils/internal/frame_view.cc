#include "qx_utils/internal/frame_view.h"

#include <glog/logging.h>

#include <limits>

namespace qx {
namespace utils {
namespace internal {

FrameView::FrameView(const velkar::vision::ImageFrame& frame)
    : pixel_format(frame.pixel_format),
      scale(frame.scale),
      data(frame.Data()),
      data_size(frame.DataSize()),
      height(frame.Height()),
      width(frame.Width()),
      channels(frame.Channel()) {}

std::uint64_t FrameView::Elements() const {
  constexpr std::uint64_t kTooMany = std::numeric_limits<std::uint64_t>::max();
  const std::uint64_t pixels = std::uint64_t{height} * width;
  if (channels != 0 && pixels > std::numeric_limits<std::uint32_t>::max()) return kTooMany;
  return pixels * channels;
}

std::ostream& operator<<(std::ostream& out, const FrameView& view) {
  return out << "(" << view.height << ", " << view.width << ", " << view.channels << ") ";
}

void CheckCostVolumeFrames(const FrameView* input_l, const FrameView* input_r,
                           const FrameView* output) {
  CHECK(QXPixelFormat::kQXPixelFormatUint8 == input_l->pixel_format &&
        QXPixelFormat::kQXPixelFormatUint8 == input_r->pixel_format &&
        QXPixelFormat::kQXPixelFormatUint8 == output->pixel_format)
      << "input_l, input_r, output pixel format must be Uint8 "
      << QXPixelFormat::kQXPixelFormatUint8;
  CHECK_EQ(input_l->DataSize(), input_r->DataSize())
      << "The two inputs' size not same, please check.";
  LOG(INFO) << "cost_volume inputs shape: " << std::endl
            << "left: " << *input_l << "right: " << *input_r;
}

}  // namespace internal
}  // namespace utils
}  // namespace qx
