#include "qxtools/image_frame.h"

#include <limits>
#include <optional>

#include "vision/image_frame_fields.h"

namespace velkar::vision {
namespace {

bool IsYuv420(QXPixelFormat format) {
  return format == kQXPixelFormatNV12 || format == kQXPixelFormatNV21 ||
         format == kQXPixelFormatYUV420P;
}

std::uint64_t BytesPerValue(QXPixelFormat format) { return format == kQXPixelFormatGray16 ? 2 : 1; }

// Returns: the bytes of a picture; nothing when the shape is invalid or does not fit a frame.
std::optional<std::uint32_t> PictureBytes(QXPixelFormat format, std::uint64_t height,
                                          std::uint64_t width, std::uint64_t channels) {
  constexpr std::uint64_t kLimit = std::numeric_limits<std::uint32_t>::max();
  if (IsYuv420(format) && (channels != 1 || height % 2 != 0 || width % 2 != 0)) {
    return std::nullopt;
  }
  const std::uint64_t pixels = height * width;  // both below 2^32
  const std::uint64_t pixel_bytes = channels * BytesPerValue(format);
  if (pixel_bytes != 0 && pixels > kLimit / pixel_bytes) return std::nullopt;
  const std::uint64_t bytes = pixels * pixel_bytes + (IsYuv420(format) ? pixels / 2 : 0);
  if (bytes > kLimit) return std::nullopt;
  return static_cast<std::uint32_t>(bytes);
}

}  // namespace

ImageFrame::~ImageFrame() = default;

std::uint64_t ImageFrame::Aux64A() const { return 0; }
std::int64_t ImageFrame::Aux64B() const { return -1; }
std::int32_t ImageFrame::Aux32A() const { return -1; }
std::uint8_t* ImageFrame::Data() const { return nullptr; }
std::shared_ptr<void> ImageFrame::Holder() const { return nullptr; }
std::uint64_t ImageFrame::Aux64C() const { return 0; }
std::uint64_t ImageFrame::Aux64D() const { return 0; }
std::uint64_t ImageFrame::Aux64E() const { return 0; }
std::uint32_t ImageFrame::DataSize() const { return 0; }
std::uint32_t ImageFrame::Aux32B() const { return 0; }
std::uint32_t ImageFrame::Width() const { return 0; }
std::uint32_t ImageFrame::Height() const { return 0; }
std::uint32_t ImageFrame::Aux32C() const { return 0; }
std::uint32_t ImageFrame::Channel() const { return 0; }
std::uint32_t ImageFrame::Aux32D() const { return 0; }

ImageFrameImpl::~ImageFrameImpl() = default;

std::shared_ptr<ImageFrameImpl> ImageFrameImpl::Create(QXPixelFormat format, std::uint8_t* data,
                                                       std::uint32_t height, std::uint32_t width,
                                                       std::uint32_t channels,
                                                       std::shared_ptr<void> holder) {
  const auto bytes = PictureBytes(format, height, width, channels);
  if (!bytes || (data == nullptr && *bytes != 0)) return nullptr;
  auto frame = std::make_shared<ImageFrameImpl>();
  frame->pixel_format = format;
  ImageFrameFields::SetData(*frame, data, *bytes);
  ImageFrameFields::SetShape(*frame, height, width, channels);
  ImageFrameFields::SetHolder(*frame, std::move(holder));
  return frame;
}

std::uint64_t ImageFrameImpl::Aux64A() const { return aux64_a_; }
std::uint8_t* ImageFrameImpl::Data() const { return data_; }
std::shared_ptr<void> ImageFrameImpl::Holder() const { return holder_; }
std::uint64_t ImageFrameImpl::Aux64C() const { return aux64_c_; }
std::uint64_t ImageFrameImpl::Aux64D() const { return aux64_d_; }
std::uint64_t ImageFrameImpl::Aux64E() const { return aux64_e_; }
std::uint32_t ImageFrameImpl::DataSize() const { return data_size_; }
std::uint32_t ImageFrameImpl::Aux32B() const { return aux32_b_; }
std::uint32_t ImageFrameImpl::Width() const { return width_; }
std::uint32_t ImageFrameImpl::Height() const { return height_; }
std::uint32_t ImageFrameImpl::Aux32C() const { return aux32_c_; }
std::uint32_t ImageFrameImpl::Channel() const { return channel_; }
std::uint32_t ImageFrameImpl::Aux32D() const { return aux32_d_; }

}  // namespace velkar::vision
