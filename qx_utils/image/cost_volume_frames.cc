#include "qx_utils/image/cost_volume_frames.h"

#include <glog/logging.h>

#include <limits>

namespace qx::utils::internal {

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

namespace {

struct Shape {
  template <typename Frame>
  explicit Shape(const Frame& frame)
      : height(frame.Height()), width(frame.Width()), channels(frame.Channel()) {}

  std::uint32_t height, width, channels;
};

std::ostream& operator<<(std::ostream& out, const Shape& shape) {
  return out << "(" << shape.height << ", " << shape.width << ", " << shape.channels << ") ";
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const FrameView& view) { return out << Shape(view); }

template <typename Frame>
void CheckCostVolumeFrames(const Frame* input_l, const Frame* input_r, const Frame* output) {
  CHECK(QXPixelFormat::kQXPixelFormatUint8 == input_l->pixel_format &&
        QXPixelFormat::kQXPixelFormatUint8 == input_r->pixel_format &&
        QXPixelFormat::kQXPixelFormatUint8 == output->pixel_format)
      << "input_l, input_r, output pixel format must be Uint8 "
      << QXPixelFormat::kQXPixelFormatUint8;
  CHECK_EQ(input_l->DataSize(), input_r->DataSize())
      << "The two inputs' size not same, please check.";
  LOG(INFO) << "cost_volume inputs shape: " << std::endl
            << "left: " << Shape(*input_l) << "right: " << Shape(*input_r);
}

template void CheckCostVolumeFrames(const FrameView*, const FrameView*, const FrameView*);
template void CheckCostVolumeFrames(const velkar::vision::ImageFrame*,
                                    const velkar::vision::ImageFrame*,
                                    const velkar::vision::ImageFrame*);

}  // namespace qx::utils::internal
