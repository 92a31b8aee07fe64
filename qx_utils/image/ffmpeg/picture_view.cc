#include "qx_utils/image/ffmpeg/picture_view.h"

#include <algorithm>
#include <string>
#include <utility>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include "qx_utils/ffmpeg_video_decoder/decoded_frame.h"
#include "qx_utils/image/ffmpeg/failure.h"
#include "qxtools/ffmpeg_media_proc.h"
#include "qxtools/ffmpeg_video_decoder.h"
#include "vision/image_frame_fields.h"

namespace qx::utils::image::engine {
namespace {

using ffmpeg::FrameLayout;
using velkar::vision::ImageFrameFields;
using velkar::vision::ImageFrameImpl;

// Lays out the planes one after the other, without gaps. Returns: their bytes; at most 2^29.
std::uint32_t LayOut(QXPixelFormat format, std::uint32_t width, std::uint32_t height,
                     FrameLayout& layout) {
  const AVPixelFormat av_format = AvFormatOf(format);
  const auto chroma_rows = height - height / 2;
  layout.width = width;
  layout.height = height;
  std::uint32_t end = 0;
  for (int plane = 0; plane < 3; ++plane) {
    const int row_bytes = av_image_get_linesize(av_format, static_cast<int>(width), plane);
    if (row_bytes <= 0) break;
    const auto bytes = static_cast<std::uint32_t>(row_bytes);
    layout.planes[plane] = {end, bytes, bytes, plane == 0 ? height : chroma_rows};
    end += bytes * layout.planes[plane].rows;
    ++layout.plane_count;
  }
  return end;
}

PictureView ViewThrough(const FrameLayout& layout, const velkar::vision::ImageFrame& frame) {
  PictureView view;
  view.format = AvFormatOf(frame.pixel_format);
  view.width = static_cast<int>(layout.width);
  view.height = static_cast<int>(layout.height);
  for (std::uint32_t plane = 0; plane < layout.plane_count; ++plane) {
    view.data[plane] = frame.Data() + layout.planes[plane].offset;
    view.pitch[plane] = static_cast<int>(layout.planes[plane].pitch);
  }
  view.coding = {layout.full_range, layout.matrix_coefficients};
  return view;
}

void CheckBytes(const velkar::vision::ImageFrame& frame, std::uint32_t bytes) {
  if (frame.Data() == nullptr) throw Failure("the frame's Data() is null");
  if (frame.DataSize() >= bytes) return;
  throw Failure("the frame's DataSize() is " + std::to_string(frame.DataSize()) + " instead of " +
                std::to_string(bytes));
}

FrameLayout LayoutOfPicture(const YuvCoding& coding) {
  FrameLayout layout = {};
  layout.full_range = coding.full_range;
  layout.matrix_coefficients = coding.matrix;
  layout.presentation_time = video::kNoTime;
  layout.wall_clock_us = video::kNoTime;
  layout.time_base_den = 1;
  layout.key = true;
  return layout;
}

std::uint32_t ChannelsOf(QXPixelFormat format) {
  if (format == kQXPixelFormatRGB888 || format == kQXPixelFormatBGR888) return 3;
  return format == kQXPixelFormatARGB8888 || format == kQXPixelFormatBGRA8888 ? 4 : 1;
}

FramePtr MakeFrame(std::uint8_t* data, std::uint32_t bytes, std::shared_ptr<void> holder,
                   QXPixelFormat format, const FrameLayout& layout) {
  auto frame = std::make_unique<ImageFrameImpl>();
  frame->pixel_format = format;
  ImageFrameFields::SetData(*frame, data, bytes);
  ImageFrameFields::SetShape(*frame, layout.height, layout.width, ChannelsOf(format));
  ImageFrameFields::SetHolder(*frame, std::move(holder));
  if (IsYuv420(format)) return ffmpeg::WithLayout(std::move(frame), layout);
  return frame;
}

}  // namespace

void CheckSize(std::uint64_t width, std::uint64_t height) {
  const std::string shape = std::to_string(width) + " x " + std::to_string(height);
  if (width == 0 || height == 0) throw Failure("the picture is empty: " + shape);
  if (width > kMaxEnginePixels / height) {
    throw Failure(shape + " is above " + std::to_string(kMaxEnginePixels) + " pixels");
  }
}

bool IsYuv420(QXPixelFormat format) {
  return format == kQXPixelFormatNV12 || format == kQXPixelFormatNV21 ||
         format == kQXPixelFormatYUV420P;
}

AVPixelFormat AvFormatOf(QXPixelFormat format) {
  switch (format) {
    case kQXPixelFormatGray8:
      return AV_PIX_FMT_GRAY8;
    case kQXPixelFormatGray16:
      return AV_PIX_FMT_GRAY16;
    case kQXPixelFormatNV21:
      return AV_PIX_FMT_NV21;
    case kQXPixelFormatNV12:
      return AV_PIX_FMT_NV12;
    case kQXPixelFormatYUV420P:
      return AV_PIX_FMT_YUV420P;
    case kQXPixelFormatRGB888:
      return AV_PIX_FMT_RGB24;
    case kQXPixelFormatBGR888:
      return AV_PIX_FMT_BGR24;
    case kQXPixelFormatARGB8888:
      return AV_PIX_FMT_ARGB;
    case kQXPixelFormatBGRA8888:
      return AV_PIX_FMT_BGRA;
    default:
      throw Failure("pixel format " + std::to_string(format) + " is not a picture's");
  }
}

PictureView ViewOf(const FramePtr& frame) {
  if (frame == nullptr) throw Failure("the frame is null");
  if (const FrameLayout* layout = ffmpeg::LayoutOf(frame)) {
    CheckSize(layout->width, layout->height);
    return ViewThrough(*layout, *frame);
  }
  const std::uint32_t width = frame->Width(), height = frame->Height();
  CheckSize(width, height);
  FrameLayout layout = LayoutOfPicture({});
  const std::uint32_t bytes = LayOut(frame->pixel_format, width, height, layout);
  if (IsYuv420(frame->pixel_format) && (width % 2 != 0 || height % 2 != 0)) {
    throw Failure("a 4:2:0 frame of odd size, " + std::to_string(width) + " x " +
                  std::to_string(height) + ", has no layout");
  }
  CheckBytes(*frame, bytes);
  return ViewThrough(layout, *frame);
}

PictureView ViewOf(const AVFrame& picture) {
  PictureView view;
  view.format = static_cast<AVPixelFormat>(picture.format);
  view.width = picture.width;
  view.height = picture.height;
  for (std::size_t plane = 0; plane < view.data.size(); ++plane) {
    view.data[plane] = picture.data[plane];
    view.pitch[plane] = picture.linesize[plane];
  }
  view.coding = {picture.color_range == AVCOL_RANGE_JPEG,
                 static_cast<std::uint8_t>(picture.colorspace)};
  view.padded = true;
  return view;
}

FramePtr NewPicture(QXPixelFormat format, std::size_t width, std::size_t height,
                    const YuvCoding& coding) {
  CheckSize(width, height);
  FrameLayout layout = LayoutOfPicture(coding);
  const std::uint32_t bytes =
      LayOut(format, static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height), layout);
  // FFmpeg's vector code may write past the last row.
  const std::shared_ptr<std::uint8_t[]> memory(
      new std::uint8_t[bytes + std::size_t{AV_INPUT_BUFFER_PADDING_SIZE}]);
  return MakeFrame(memory.get(), bytes, memory, format, layout);
}

FramePtr FrameOver(std::uint8_t* data, std::shared_ptr<void> holder, QXPixelFormat format,
                   const PictureView& picture) {
  FrameLayout layout = LayoutOfPicture(picture.coding);
  const std::uint32_t bytes = LayOut(format, static_cast<std::uint32_t>(picture.width),
                                     static_cast<std::uint32_t>(picture.height), layout);
  return MakeFrame(data, bytes, std::move(holder), format, layout);
}

PlaneSize SizeOfPlane(const PictureView& picture, std::size_t plane) {
  const AVPixFmtDescriptor& format = *av_pix_fmt_desc_get(picture.format);
  const int shift = plane == 1 || plane == 2 ? format.log2_chroma_h : 0;
  const int rows = -(-picture.height >> shift);  // rounded up
  return {av_image_get_linesize(picture.format, picture.width, static_cast<int>(plane)), rows};
}

void CopySamples(const PictureView& source, const PictureView& target) {
  PictureView to = target;  // FFmpeg takes its arrays without const
  std::array<const std::uint8_t*, 4> from{};
  std::copy(source.data.begin(), source.data.end(), from.begin());
  av_image_copy(to.data.data(), to.pitch.data(), from.data(), source.pitch.data(), to.format,
                to.width, to.height);
}

}  // namespace qx::utils::image::engine
