#include "tools/media/decoded_picture.h"

#include <algorithm>

#include "tools/media/ffmpeg.h"

namespace qx::tools {

using utils::ffmpeg::FrameLayout;

PlanarSamples::PlanarSamples(const velkar::vision::ImageFrame& frame, const FrameLayout& layout) {
  const auto plane = [&](std::size_t i) {
    const auto& p = layout.planes[i];
    return Plane{frame.Data() + p.offset, p.pitch, p.row_bytes, p.rows};
  };
  const Plane luma = plane(0);
  for (std::size_t y = 0; y < luma.height; ++y) Append(luma.data + y * luma.pitch, luma.width);
  const std::size_t width = (layout.width + 1) / 2;
  const std::size_t height = (layout.height + 1) / 2;
  const bool is_planar = layout.plane_count == 3;
  const std::size_t u = frame.pixel_format == kQXPixelFormatNV21 ? 1 : 0;
  for (std::size_t i = 0; i < 2; ++i) {
    AppendChroma(is_planar ? plane(1 + i) : Separate(plane(1), u ^ i, separated_[i]), width,
                 height);
  }
}

// Pieces that adjoin in memory become one.
void PlanarSamples::Append(const std::uint8_t* data, std::size_t size) {
  if (!pieces_.empty()) {
    iovec& last = pieces_.back();
    if (static_cast<const std::uint8_t*>(last.iov_base) + last.iov_len == data) {
      last.iov_len += size;
      return;
    }
  }
  pieces_.push_back({const_cast<std::uint8_t*>(data), size});
}

void PlanarSamples::AppendChroma(const Plane& plane, std::size_t width, std::size_t height) {
  if (plane.width == 0 || plane.height == 0) {  // a picture too small to have any
    static constexpr std::uint8_t kNoColour = 128;
    for (std::size_t i = 0; i < width * height; ++i) Append(&kNoColour, 1);
    return;
  }
  for (std::size_t y = 0; y < height; ++y) {
    const std::uint8_t* row = plane.data + std::min(y, plane.height - 1) * plane.pitch;
    Append(row, plane.width);
    if (plane.width < width) Append(row + plane.width - 1, 1);
  }
}

// Copies every second sample of a plane, beginning with `first`.
PlanarSamples::Plane PlanarSamples::Separate(const Plane& interleaved, std::size_t first,
                                             std::vector<std::uint8_t>& samples) {
  const Plane plane{nullptr, interleaved.width / 2, interleaved.width / 2, interleaved.height};
  samples.reserve(plane.width * plane.height);
  for (std::size_t y = 0; y < plane.height; ++y) {
    const std::uint8_t* row = interleaved.data + y * interleaved.pitch + first;
    for (std::size_t x = 0; x < plane.width; ++x) samples.push_back(row[2 * x]);
  }
  return {samples.data(), plane.pitch, plane.width, plane.height};
}

std::vector<std::uint8_t> PlanarSamples::Copy() const {
  std::vector<std::uint8_t> samples;
  for (const iovec& piece : pieces_) {
    const auto* bytes = static_cast<const std::uint8_t*>(piece.iov_base);
    samples.insert(samples.end(), bytes, bytes + piece.iov_len);
  }
  return samples;
}

Image<Rgb> RgbOf(const FramePtr& frame) {
  const FrameLayout& layout = *utils::ffmpeg::LayoutOf(frame);
  return ToRgb({static_cast<int>(layout.width), static_cast<int>(layout.height), layout.full_range,
                layout.matrix_coefficients, PlanarSamples(*frame, layout).Copy()});
}

}  // namespace qx::tools
