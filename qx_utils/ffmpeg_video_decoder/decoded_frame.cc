#include "qx_utils/ffmpeg_video_decoder/decoded_frame.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <sstream>

extern "C" {
#include <libavutil/pixdesc.h>
}

#include "qx_utils/ffmpeg_video_decoder/pixel_format.h"
#include "vision/image_frame_fields.h"

namespace qx::utils::ffmpeg {
namespace {

using velkar::vision::ImageFrame;
using velkar::vision::ImageFrameFields;
using velkar::vision::ImageFrameImpl;

// Frees a frame whose holder owns its bytes. It also carries the layout, since the frame itself is
// an ordinary one.
struct FrameDeleter {
  ImageFrameImpl* frame;
  FrameLayout layout;

  void operator()(ImageFrame* /*same as frame*/) const { delete frame; }
};

// Frees a decoded frame and its bytes.
struct DecodedFrameDeleter {
  ImageFrameImpl* frame;
  FrameLayout layout;

  void operator()(ImageFrame* /*same as frame*/) const {
    delete[] reinterpret_cast<PictureByte*>(frame->Data());
    delete frame;
  }
};

// Returns: the layout that a deleter of this type carries, or null.
template <typename Deleter>
const FrameLayout* LayoutIn(const std::shared_ptr<ImageFrame>& frame) {
  const auto* owner = std::get_deleter<Deleter>(frame);
  // A pointer to another frame can share this one's ownership.
  return owner != nullptr && owner->frame == frame.get() ? &owner->layout : nullptr;
}

struct PlaneSize {
  int row_bytes;
  int rows;
};

PlaneSize SizeOfPlane(const AVFrame& picture, std::uint32_t plane, std::uint32_t plane_count) {
  if (plane == 0) return {picture.width, picture.height};
  return {plane_count == 2 ? picture.width : picture.width / 2, picture.height / 2};
}

// Lays the planes one after the other, each with the pitch it has in `picture`; `bytes` is their
// sum. Returns: kDecodeOk, or kDecodeUnsupportedLayout when a plane is stored bottom-up, or
// kDecodePictureTooLarge when the sum does not fit 31 bits.
DecodeStatus LayOut(const AVFrame& picture, FrameLayout& layout, std::uint32_t& bytes) {
  std::int64_t end = 0;
  for (std::uint32_t plane = 0; plane < layout.plane_count; ++plane) {
    const PlaneSize size = SizeOfPlane(picture, plane, layout.plane_count);
    const std::int64_t pitch = picture.linesize[plane];
    if (size.rows < 0 || pitch < size.row_bytes) return kDecodeUnsupportedLayout;
    layout.planes[plane] = {static_cast<std::uint32_t>(end), static_cast<std::uint32_t>(pitch),
                            static_cast<std::uint32_t>(size.row_bytes),
                            static_cast<std::uint32_t>(size.rows)};
    end += pitch * size.rows;
    if (end > std::numeric_limits<std::int32_t>::max()) return kDecodePictureTooLarge;
  }
  bytes = static_cast<std::uint32_t>(end);
  return kDecodeOk;
}

// Returns: the layout without its planes.
FrameLayout Describe(const AVFrame& picture, const SentPacket& packet) {
  FrameLayout layout = {};
  layout.width = static_cast<std::uint32_t>(picture.width);
  layout.height = static_cast<std::uint32_t>(picture.height);
  layout.full_range =
      picture.format == AV_PIX_FMT_YUVJ420P || picture.color_range == AVCOL_RANGE_JPEG;
  layout.presentation_time = packet.times.presentation;
  layout.time_base_num = packet.times.time_base_num;
  layout.time_base_den = packet.times.time_base_den;
  layout.key = internal::IsKeyPicture(picture);
  layout.damaged = packet.corrupt || picture.decode_error_flags != 0 ||
                   (picture.flags & AV_FRAME_FLAG_CORRUPT) != 0;
  layout.discontinuity = packet.times.discontinuity;
  layout.wall_clock_us = packet.times.wall_clock_us;
  layout.matrix_coefficients = static_cast<std::uint8_t>(picture.colorspace);
  return layout;
}

// Returns: a frame with room for `bytes`, which return to `pool` with it.
std::shared_ptr<ImageFrame> MakeFrame(const FrameLayout& layout, QXPixelFormat format,
                                      std::uint32_t bytes,
                                      const std::shared_ptr<PicturePool>& pool) {
  auto decoded = std::make_unique<ImageFrameImpl>();
  decoded->pixel_format = format;
  std::unique_ptr<PictureByte[]> data(new (pool) PictureByte[bytes]);
  ImageFrameFields::SetData(*decoded, reinterpret_cast<std::uint8_t*>(data.release()), bytes);
  ImageFrameImpl* const raw = decoded.release();
  return {static_cast<ImageFrame*>(raw), DecodedFrameDeleter{raw, layout}};
}

void CopyPlane(const FrameLayout::Plane& plane, const std::uint8_t* from, std::uint8_t* to) {
  for (std::size_t row = 0; row < plane.rows; ++row) {
    std::memcpy(to + plane.offset + row * plane.pitch, from + row * plane.pitch, plane.row_bytes);
  }
}

std::string RefusedFormat(AVPixelFormat format) {
  const char* name = av_get_pix_fmt_name(format);
  return std::string("decoded picture refused: pixel format ") + (name != nullptr ? name : "none") +
         " is not 8-bit 4:2:0";
}

std::string RefusedSize(const AVFrame& picture) {
  std::ostringstream line;
  line << "decoded picture refused: " << picture.width << " x " << picture.height
       << " pixels with line sizes " << picture.linesize[0] << ", " << picture.linesize[1] << ", "
       << picture.linesize[2] << " do not fit a frame";
  return line.str();
}

}  // namespace

DecodeStatus CopyPicture(const AVFrame& picture, const SentPacket& packet,
                         const std::shared_ptr<PicturePool>& pool,
                         std::shared_ptr<ImageFrame>& frame, std::string& refusal) {
  const auto picture_format = static_cast<AVPixelFormat>(picture.format);
  const AVPixelFormat av_format = WithoutColourRange(picture_format);
  if (av_format == AV_PIX_FMT_NONE) {
    refusal = RefusedFormat(picture_format);
    return kDecodeUnsupportedFormat;
  }
  FrameLayout layout = Describe(picture, packet);
  layout.plane_count = av_format == AV_PIX_FMT_YUV420P ? 3 : 2;
  std::uint32_t bytes = 0;
  const DecodeStatus status = LayOut(picture, layout, bytes);
  if (status != kDecodeOk) {
    refusal = RefusedSize(picture);
    return status;
  }
  frame = MakeFrame(layout, ConvertAvPixelFormat(av_format), bytes, pool);
  for (std::uint32_t plane = 0; plane < layout.plane_count; ++plane) {
    CopyPlane(layout.planes[plane], picture.data[plane], frame->Data());
  }
  return kDecodeOk;
}

std::shared_ptr<ImageFrame> WithLayout(std::unique_ptr<ImageFrameImpl> frame,
                                       const FrameLayout& layout) {
  ImageFrameImpl* const raw = frame.release();
  return {static_cast<ImageFrame*>(raw), FrameDeleter{raw, layout}};
}

const FrameLayout* LayoutOf(const std::shared_ptr<ImageFrame>& frame) {
  const FrameLayout* decoded = LayoutIn<DecodedFrameDeleter>(frame);
  return decoded != nullptr ? decoded : LayoutIn<FrameDeleter>(frame);
}

}  // namespace qx::utils::ffmpeg
