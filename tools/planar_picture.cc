#include "tools/planar_picture.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include "qxtools/ffmpeg_video_decoder.h"

namespace qx::tools {
namespace {

// Chroma of a picture that is too small to have any.
constexpr std::uint8_t kNoColour = 128;

// swscale's vector instructions read a little further than a row's end.
constexpr std::size_t kReadAhead = 64;

[[noreturn]] void Fail() { throw std::runtime_error("FFmpeg cannot convert the picture to RGB"); }

std::vector<std::uint8_t> Gather(const PlanarPicture& picture) {
  std::vector<std::uint8_t> samples;
  for (const iovec& piece : picture.Pieces()) {
    const auto* bytes = static_cast<const std::uint8_t*>(piece.iov_base);
    samples.insert(samples.end(), bytes, bytes + piece.iov_len);
  }
  samples.resize(samples.size() + kReadAhead);
  return samples;
}

ScalerPtr MakeRgbScaler(const PlanarPicture& picture) {
  const int width = static_cast<int>(picture.Width());
  const int height = static_cast<int>(picture.Height());
  ScalerPtr scaler(sws_getContext(
      width, height, AV_PIX_FMT_YUV420P, width, height, AV_PIX_FMT_RGB24,
      SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr));
  const int* matrix = sws_getCoefficients(picture.Matrix());
  constexpr int kOne = 1 << 16;  // contrast and saturation stay as they are
  if (!scaler || sws_setColorspaceDetails(scaler.get(), matrix, picture.FullRange() ? 1 : 0, matrix,
                                          0, 0, kOne, kOne) < 0) {
    Fail();
  }
  return scaler;
}

}  // namespace

void ScalerDeleter::operator()(SwsContext* scaler) const { sws_freeContext(scaler); }

PlanarPicture::PlanarPicture(std::shared_ptr<velkar::vision::ImageFrame> frame)
    : frame_(std::move(frame)) {
  const utils::ffmpeg::FrameLayout& layout = *utils::ffmpeg::LayoutOf(frame_);
  width_ = layout.width;
  height_ = layout.height;
  full_range_ = layout.full_range;
  matrix_ = layout.matrix_coefficients;
  const auto plane = [&](std::size_t i) {
    const auto& p = layout.planes[i];
    return Plane{frame_->Data() + p.offset, p.pitch, p.row_bytes, p.rows};
  };
  AppendLuma(plane(0));
  if (layout.plane_count == 3) {
    AppendChroma(plane(1));
    AppendChroma(plane(2));
    return;
  }
  const std::size_t u = frame_->pixel_format == kQXPixelFormatNV12 ? 0 : 1;
  AppendChroma(Separate(plane(1), u, separated_[0]));
  AppendChroma(Separate(plane(1), 1 - u, separated_[1]));
}

// Pieces that adjoin in memory become one.
void PlanarPicture::Append(const std::uint8_t* data, std::size_t size) {
  if (!pieces_.empty()) {
    iovec& last = pieces_.back();
    if (static_cast<const std::uint8_t*>(last.iov_base) + last.iov_len == data) {
      last.iov_len += size;
      return;
    }
  }
  pieces_.push_back({const_cast<std::uint8_t*>(data), size});
}

void PlanarPicture::AppendLuma(const Plane& plane) {
  for (std::size_t y = 0; y < plane.height; ++y) Append(plane.data + y * plane.pitch, plane.width);
}

void PlanarPicture::AppendChroma(const Plane& plane) {
  const std::size_t width = (width_ + 1) / 2;
  const std::size_t height = (height_ + 1) / 2;
  if (plane.width == 0 || plane.height == 0) {
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
PlanarPicture::Plane PlanarPicture::Separate(const Plane& interleaved, std::size_t first,
                                             std::vector<std::uint8_t>& samples) {
  const Plane plane{nullptr, interleaved.width / 2, interleaved.width / 2, interleaved.height};
  samples.reserve(plane.width * plane.height);
  for (std::size_t y = 0; y < plane.height; ++y) {
    const std::uint8_t* row = interleaved.data + y * interleaved.pitch + first;
    for (std::size_t x = 0; x < plane.width; ++x) samples.push_back(row[2 * x]);
  }
  return {samples.data(), plane.pitch, plane.width, plane.height};
}

std::vector<std::uint8_t> ToRgb(const PlanarPicture& picture) {
  const int width = static_cast<int>(picture.Width());
  const int height = static_cast<int>(picture.Height());
  const int chroma_width = (width + 1) / 2;
  const std::vector<std::uint8_t> samples = Gather(picture);
  const std::uint8_t* u = samples.data() + picture.Width() * picture.Height();
  const std::uint8_t* v = u + (picture.Width() + 1) / 2 * ((picture.Height() + 1) / 2);
  const std::uint8_t* from[] = {samples.data(), u, v};
  const int from_pitch[] = {width, chroma_width, chroma_width};
  std::vector<std::uint8_t> rgb(3 * picture.Width() * picture.Height());
  std::uint8_t* to[] = {rgb.data()};
  const int to_pitch[] = {3 * width};
  const ScalerPtr scaler = MakeRgbScaler(picture);
  if (sws_scale(scaler.get(), from, from_pitch, 0, height, to, to_pitch) != height) Fail();
  return rgb;
}

}  // namespace qx::tools
