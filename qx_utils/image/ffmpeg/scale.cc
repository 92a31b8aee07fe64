#include "qx_utils/image/ffmpeg/scale.h"

#include <algorithm>
#include <cmath>

#include "qx_utils/image/ffmpeg/failure.h"
#include "qx_utils/image/ffmpeg/swscale.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace qx::utils::image::engine {
namespace {

FramePtr Scaled(const PictureView& source, QXPixelFormat format, std::size_t width,
                std::size_t height) {
  FramePtr result = NewPicture(format, width, height, source.coding);
  const PictureView target = ViewOf(result);
  const bool shrinks = target.width < source.width || target.height < source.height;
  ScaleInto(source, target, shrinks ? SWS_AREA : SWS_BICUBIC);
  return result;
}

int PixelAt(float corner, int size) {
  return static_cast<int>(std::clamp(std::nearbyint(corner), 0.0F, static_cast<float>(size - 1)));
}

PictureView Cut(const PictureView& whole, const MediaProc::Box& box) {
  const AVPixFmtDescriptor& format = *av_pix_fmt_desc_get(whole.format);
  PictureView part = whole;
  const int left = PixelAt(box.x1, whole.width) >> format.log2_chroma_w << format.log2_chroma_w;
  const int top = PixelAt(box.y1, whole.height) >> format.log2_chroma_h << format.log2_chroma_h;
  part.width = PixelAt(box.x2, whole.width) - left + 1;
  part.height = PixelAt(box.y2, whole.height) - top + 1;
  if (part.width <= 0 || part.height <= 0) throw Failure("a box is empty");
  for (std::size_t plane = 0; plane < 4 && part.data[plane] != nullptr; ++plane) {
    const int rows = plane == 0 ? top : top >> format.log2_chroma_h;
    part.data[plane] +=
        std::ptrdiff_t{rows} * part.pitch[plane] +
        (left == 0 ? 0 : av_image_get_linesize(whole.format, left, static_cast<int>(plane)));
  }
  return part;
}

}  // namespace

FramePtr ResizePicture(const FramePtr& frame, std::size_t width, std::size_t height) {
  return Scaled(ViewOf(frame), frame->pixel_format, width, height);
}

std::vector<FramePtr> CropPicture(const FramePtr& frame, const std::vector<MediaProc::Box>& boxes,
                                  std::size_t width, std::size_t height, bool resize) {
  const PictureView whole = ViewOf(frame);
  std::vector<FramePtr> parts;
  for (const MediaProc::Box& box : boxes) {
    const PictureView part = Cut(whole, box);
    if (resize) {
      parts.push_back(Scaled(part, frame->pixel_format, width, height));
      continue;
    }
    parts.push_back(NewPicture(frame->pixel_format, static_cast<std::size_t>(part.width),
                               static_cast<std::size_t>(part.height), whole.coding));
    CopySamples(part, ViewOf(parts.back()));
  }
  return parts;
}

}  // namespace qx::utils::image::engine
