#include "tools/planar_picture.h"

#include <algorithm>
#include <cmath>

#include "qxtools/ffmpeg_video_decoder.h"

namespace qx {
namespace tools {
namespace {

using utils::ffmpeg::FrameLayout;

// Appends every `step`th sample of a plane, beginning with `first`.
void Append(const std::uint8_t* frame, const FrameLayout::Plane& plane, std::size_t first,
            std::size_t step, std::vector<std::uint8_t>& out) {
  for (std::size_t y = 0; y < plane.rows; ++y) {
    const std::uint8_t* row = frame + plane.offset + y * plane.pitch;
    if (step == 1) {
      out.insert(out.end(), row, row + plane.row_bytes);
      continue;
    }
    for (std::size_t x = first; x < plane.row_bytes; x += step) out.push_back(row[x]);
  }
}

std::uint8_t ToByte(float value) {
  return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0F, 255.0F)));
}

}  // namespace

PlanarPicture ToPlanar(const std::shared_ptr<velkar::vision::ImageFrame>& frame) {
  const FrameLayout& layout = *utils::ffmpeg::LayoutOf(frame);
  PlanarPicture picture;
  picture.width = layout.width;
  picture.height = layout.height;
  picture.full_range = layout.full_range;
  picture.bytes.reserve(picture.width * picture.height * 3 / 2);
  const std::uint8_t* data = frame->Data();
  Append(data, layout.planes[0], 0, 1, picture.bytes);
  if (layout.plane_count == 3) {
    Append(data, layout.planes[1], 0, 1, picture.bytes);
    Append(data, layout.planes[2], 0, 1, picture.bytes);
    return picture;
  }
  const std::size_t u = frame->pixel_format == kQXPixelFormatNV12 ? 0 : 1;
  Append(data, layout.planes[1], u, 2, picture.bytes);
  Append(data, layout.planes[1], 1 - u, 2, picture.bytes);
  return picture;
}

std::vector<std::uint8_t> ToRgb(const PlanarPicture& picture) {
  const float black = picture.full_range ? 0.0F : 16.0F;
  const float luma_gain = picture.full_range ? 1.0F : 255.0F / 219.0F;
  const float chroma_gain = picture.full_range ? 1.0F : 255.0F / 224.0F;
  const std::size_t chroma_width = picture.width / 2;
  const std::uint8_t* luma = picture.bytes.data();
  const std::uint8_t* u_plane = luma + picture.width * picture.height;
  const std::uint8_t* v_plane = u_plane + chroma_width * (picture.height / 2);
  std::vector<std::uint8_t> rgb;
  rgb.reserve(picture.width * picture.height * 3);
  for (std::size_t y = 0; y < picture.height; ++y) {
    for (std::size_t x = 0; x < picture.width; ++x) {
      const std::size_t at = y / 2 * chroma_width + x / 2;
      const float grey = (static_cast<float>(luma[y * picture.width + x]) - black) * luma_gain;
      const float u = (static_cast<float>(u_plane[at]) - 128.0F) * chroma_gain;
      const float v = (static_cast<float>(v_plane[at]) - 128.0F) * chroma_gain;
      rgb.push_back(ToByte(grey + 1.402F * v));
      rgb.push_back(ToByte(grey - 0.344136F * u - 0.714136F * v));
      rgb.push_back(ToByte(grey + 1.772F * u));
    }
  }
  return rgb;
}

}  // namespace tools
}  // namespace qx
