#include "qx_utils/ffmpeg_video_decoder/decoded_frame.h"

#include <glog/logging.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>

extern "C" {
#include <libavutil/pixdesc.h>
}

#include "qx_utils/ffmpeg_video_decoder/pixel_format.h"
#include "vision/image_frame_fields.h"

namespace qx {
namespace utils {
namespace ffmpeg {
namespace {

using velkar::vision::ImageFrame;
using velkar::vision::ImageFrameFields;
using velkar::vision::ImageFrameImpl;

// Frees a decoded frame with its bytes. The layout travels here, beside the frame: the frame itself
// is an ordinary one.
struct DecodedFrameDeleter {
  ImageFrameImpl* frame;
  FrameLayout layout;

  void operator()(ImageFrame* /*same as frame*/) const {
    delete[] frame->Data();
    delete frame;
  }
};

struct PlaneSize {
  int row_bytes;
  int rows;
};

PlaneSize SizeOfPlane(const AVFrame& picture, std::uint32_t plane, std::uint32_t plane_count) {
  if (plane == 0) return {picture.width, picture.height};
  return {plane_count == 2 ? picture.width : picture.width / 2, picture.height / 2};
}

// The planes one after the other, each with the pitch it has in `picture`; `bytes` is their sum.
// Nothing when a plane does not lie forwards in memory or the sum does not fit 31 bits.
std::optional<FrameLayout> LayOut(const AVFrame& picture, std::uint32_t plane_count,
                                  std::uint32_t& bytes) {
  FrameLayout layout = {};
  layout.width = static_cast<std::uint32_t>(picture.width);
  layout.height = static_cast<std::uint32_t>(picture.height);
  layout.plane_count = plane_count;
  layout.full_range =
      picture.format == AV_PIX_FMT_YUVJ420P || picture.color_range == AVCOL_RANGE_JPEG;
  std::int64_t end = 0;
  for (std::uint32_t plane = 0; plane < plane_count; ++plane) {
    const PlaneSize size = SizeOfPlane(picture, plane, plane_count);
    const std::int64_t pitch = picture.linesize[plane];
    if (size.rows < 0 || pitch < size.row_bytes) return std::nullopt;
    layout.planes[plane] = {static_cast<std::uint32_t>(end), static_cast<std::uint32_t>(pitch),
                            static_cast<std::uint32_t>(size.row_bytes),
                            static_cast<std::uint32_t>(size.rows)};
    end += pitch * size.rows;
    if (end > std::numeric_limits<std::int32_t>::max()) return std::nullopt;
  }
  bytes = static_cast<std::uint32_t>(end);
  return layout;
}

void CopyPlane(const FrameLayout::Plane& plane, const std::uint8_t* from, std::uint8_t* to) {
  for (std::size_t row = 0; row < plane.rows; ++row) {
    std::memcpy(to + plane.offset + row * plane.pitch, from + row * plane.pitch, plane.row_bytes);
  }
}

}  // namespace

DecodeStatus CopyPicture(const AVFrame& picture, std::shared_ptr<ImageFrame>& frame) {
  const auto picture_format = static_cast<AVPixelFormat>(picture.format);
  const AVPixelFormat av_format = WithoutColourRange(picture_format);
  if (av_format == AV_PIX_FMT_NONE) {
    const char* name = av_get_pix_fmt_name(picture_format);
    LOG(ERROR) << "decoded picture refused: pixel format " << (name != nullptr ? name : "none")
               << " is not 8-bit 4:2:0";
    return kDecodeUnsupportedFormat;
  }
  std::uint32_t bytes = 0;
  const auto layout = LayOut(picture, av_format == AV_PIX_FMT_YUV420P ? 3 : 2, bytes);
  if (!layout) {
    LOG(ERROR) << "decoded picture refused: " << picture.width << " x " << picture.height
               << " pixels with line sizes " << picture.linesize[0] << ", " << picture.linesize[1]
               << ", " << picture.linesize[2] << " do not fit a frame";
    return kDecodePictureTooLarge;
  }
  auto decoded = std::make_unique<ImageFrameImpl>();
  decoded->pixel_format = ConvertAvPixelFormat(av_format);
  // make_unique would fill the picture with zeros first.
  std::unique_ptr<std::uint8_t[]> data(new std::uint8_t[bytes]);  // NOLINT(modernize-make-unique)
  ImageFrameFields::SetData(*decoded, data.release(), bytes);
  ImageFrameImpl* const raw = decoded.release();
  frame.reset(static_cast<ImageFrame*>(raw), DecodedFrameDeleter{raw, *layout});
  for (std::uint32_t plane = 0; plane < layout->plane_count; ++plane) {
    CopyPlane(layout->planes[plane], picture.data[plane], raw->Data());
  }
  return kDecodeOk;
}

const FrameLayout* LayoutOf(const std::shared_ptr<ImageFrame>& frame) {
  const auto* owner = std::get_deleter<DecodedFrameDeleter>(frame);
  // A pointer to another frame can share a decoded frame's ownership.
  return owner != nullptr && owner->frame == frame.get() ? &owner->layout : nullptr;
}

}  // namespace ffmpeg
}  // namespace utils
}  // namespace qx
