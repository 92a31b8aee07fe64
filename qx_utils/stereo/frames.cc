#include "qx_utils/stereo/frames.h"

#include <limits>
#include <stdexcept>
#include <string>

#include "qxtools/ffmpeg_video_decoder.h"
#include "qxtools/stereo_matcher.h"

namespace qx::utils::stereo {
namespace {

using velkar::vision::ImageFrameImpl;

[[noreturn]] void Refuse(const char* name, const std::string& reason) {
  throw std::invalid_argument(std::string(name) + ": " + reason);
}

bool HasLuma(QXPixelFormat format) {
  return format == kQXPixelFormatGray8 || format == kQXPixelFormatNV12 ||
         format == kQXPixelFormatNV21 || format == kQXPixelFormatYUV420P;
}

void CheckBytes(const velkar::vision::ImageFrame& frame, const Shape& shape,
                std::size_t value_bytes, const char* name) {
  if (shape.height == 0 || shape.width == 0 || shape.channels == 0) {
    Refuse(name, "the frame is empty: " + Text(shape));
  }
  if (shape.height * shape.width > std::numeric_limits<std::uint32_t>::max() ||
      shape.Values() > frame.DataSize() / value_bytes) {
    Refuse(name, "DataSize() is " + std::to_string(frame.DataSize()) + ", too small for " +
                     Text(shape) + " values of " + std::to_string(value_bytes) + " bytes");
  }
  if (frame.Data() == nullptr) Refuse(name, "Data() is null");
}

}  // namespace

GreyView LumaOf(const FramePtr& frame, const char* name) {
  if (frame == nullptr) Refuse(name, "the frame is null");
  if (!HasLuma(frame->pixel_format)) {
    Refuse(name, "pixel format " + std::to_string(frame->pixel_format) +
                     " is neither Gray8 nor NV12, NV21 or YUV420P");
  }
  if (const ffmpeg::FrameLayout* layout = ffmpeg::LayoutOf(frame)) {
    const ffmpeg::FrameLayout::Plane& luma = layout->planes[0];
    return {frame->Data() + luma.offset, luma.pitch, layout->width, layout->height};
  }
  const Shape shape{frame->Height(), frame->Width(), 1};
  CheckBytes(*frame, shape, 1, name);
  return {frame->Data(), shape.width, shape.width, shape.height};
}

Shape ShapeOf(const FramePtr& frame, QXPixelFormat format, std::size_t value_bytes,
              const char* name) {
  if (frame == nullptr) Refuse(name, "the frame is null");
  if (frame->pixel_format != format) {
    Refuse(name, "pixel format " + std::to_string(frame->pixel_format) + " instead of " +
                     std::to_string(format));
  }
  const Shape shape{frame->Height(), frame->Width(), frame->Channel()};
  CheckBytes(*frame, shape, value_bytes, name);
  return shape;
}

void CheckSameSize(const Shape& shape, const char* name, const GreyView& picture,
                   const char* picture_name) {
  if (shape.width == picture.width && shape.height == picture.height) return;
  Refuse(name, std::to_string(shape.width) + " x " + std::to_string(shape.height) +
                   " pixels, but " + picture_name + " has " + std::to_string(picture.width) +
                   " x " + std::to_string(picture.height));
}

FrameImplPtr NewFrame(QXPixelFormat format, const Shape& shape, float scale) {
  const std::size_t bytes = shape.Values() * (format == kQXPixelFormatGray16 ? 2 : 1);
  if (bytes > std::numeric_limits<std::uint32_t>::max()) {
    throw std::length_error("a result of " + Text(shape) + " values is above 4 GiB");
  }
  const std::shared_ptr<std::uint8_t[]> memory(new std::uint8_t[bytes]);
  auto frame = ImageFrameImpl::Create(
      format, memory.get(), static_cast<std::uint32_t>(shape.height),
      static_cast<std::uint32_t>(shape.width), static_cast<std::uint32_t>(shape.channels), memory);
  frame->scale = scale;
  return frame;
}

FrameImplPtr NewDisparityMap(std::size_t width, std::size_t height) {
  return NewFrame(kQXPixelFormatGray16, {height, width, 1}, 1.0F / kDisparityUnits);
}

FrameImplPtr NewConfidenceMap(std::size_t width, std::size_t height) {
  return NewFrame(kQXPixelFormatGray8, {height, width, 1}, 1.0F / 255);
}

std::string Text(const Shape& shape) {
  return std::to_string(shape.height) + " x " + std::to_string(shape.width) + " x " +
         std::to_string(shape.channels);
}

}  // namespace qx::utils::stereo
