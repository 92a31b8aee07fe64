#include "qx_utils/image/ffmpeg/channels.h"

namespace qx::utils::image::engine {
namespace {

template <int channels>
void Split(const std::uint8_t* __restrict packed, int pixels, const ChannelRows& rows) {
  std::uint8_t* __restrict a = rows[0];
  std::uint8_t* __restrict b = rows[1];
  std::uint8_t* __restrict c = rows[2];
  std::uint8_t* __restrict d = channels == 4 ? rows[3] : nullptr;
  for (int x = 0; x < pixels; ++x, packed += channels) {
    a[x] = packed[0];
    b[x] = packed[1];
    c[x] = packed[2];
    if (channels == 4) d[x] = packed[3];
  }
}

template <int channels>
void Merge(const ChannelRows& rows, int pixels, std::uint8_t* __restrict packed) {
  const std::uint8_t* __restrict a = rows[0];
  const std::uint8_t* __restrict b = rows[1];
  const std::uint8_t* __restrict c = rows[2];
  const std::uint8_t* __restrict d = channels == 4 ? rows[3] : nullptr;
  for (int x = 0; x < pixels; ++x, packed += channels) {
    packed[0] = a[x];
    packed[1] = b[x];
    packed[2] = c[x];
    if (channels == 4) packed[3] = d[x];
  }
}

}  // namespace

const PixelOrder* PixelOrderOf(AVPixelFormat format) {
  static constexpr PixelOrder kRgb = {3, 0, 1, 2, -1};
  static constexpr PixelOrder kBgr = {3, 2, 1, 0, -1};
  static constexpr PixelOrder kArgb = {4, 1, 2, 3, 0};
  static constexpr PixelOrder kBgra = {4, 2, 1, 0, 3};
  static constexpr PixelOrder kRgba = {4, 0, 1, 2, 3};
  switch (format) {
    case AV_PIX_FMT_RGBA:
      return &kRgba;
    case AV_PIX_FMT_RGB24:
      return &kRgb;
    case AV_PIX_FMT_BGR24:
      return &kBgr;
    case AV_PIX_FMT_ARGB:
      return &kArgb;
    case AV_PIX_FMT_BGRA:
      return &kBgra;
    default:
      return nullptr;
  }
}

void SplitChannels(const std::uint8_t* packed, int channels, int pixels, const ChannelRows& rows) {
  channels == 4 ? Split<4>(packed, pixels, rows) : Split<3>(packed, pixels, rows);
}

void MergeChannels(const ChannelRows& rows, int channels, int pixels, std::uint8_t* packed) {
  channels == 4 ? Merge<4>(rows, pixels, packed) : Merge<3>(rows, pixels, packed);
}

}  // namespace qx::utils::image::engine
