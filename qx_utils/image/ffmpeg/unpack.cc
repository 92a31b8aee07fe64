#include "qx_utils/image/ffmpeg/unpack.h"

#include <algorithm>
#include <cstring>

#include "qx_utils/image/ffmpeg/color.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace qx::utils::image::engine {
namespace {

// 0 .. 65535 to 0 .. 255, rounded. `value` is big-endian.
std::uint8_t Narrow(const std::uint8_t* value) {
  const std::uint32_t wide = std::uint32_t{value[0]} << 8 | value[1];
  return static_cast<std::uint8_t>((wide * 255 + 32767) / 65535);
}

void SwapBytes(const std::uint8_t* from, std::uint8_t* to, std::ptrdiff_t pixels) {
  for (std::ptrdiff_t i = 0; i < pixels; ++i) {
    const auto value = static_cast<std::uint16_t>(from[2 * i] << 8 | from[2 * i + 1]);
    std::memcpy(to + 2 * i, &value, sizeof(value));
  }
}

void Bits(const std::uint8_t* from, std::uint8_t* to, std::ptrdiff_t pixels) {
  for (std::ptrdiff_t i = 0; i < pixels; ++i)
    to[i] = (from[i / 8] >> (7 - i % 8) & 1) != 0 ? 255 : 0;
}

// Channel c of a pixel of `kTo` bytes is byte kOrder[c] of one of `kFrom` bytes.
template <std::ptrdiff_t kFrom, int kTo, std::ptrdiff_t... kOrder>
void Reorder(const std::uint8_t* from, std::uint8_t* to, std::ptrdiff_t pixels) {
  static_assert(sizeof...(kOrder) == kTo);
  for (std::ptrdiff_t i = 0; i < pixels; ++i, from += kFrom) ((*to++ = from[kOrder]), ...);
}

// The same for big-endian values of 16 bits.
template <std::ptrdiff_t kFrom, int kTo, std::ptrdiff_t... kOrder>
void ReorderNarrowed(const std::uint8_t* from, std::uint8_t* to, std::ptrdiff_t pixels) {
  static_assert(sizeof...(kOrder) == kTo);
  for (std::ptrdiff_t i = 0; i < pixels; ++i, from += 2 * kFrom)
    ((*to++ = Narrow(from + 2 * kOrder)), ...);
}

struct Unpacker {
  AVPixelFormat from;
  QXPixelFormat to;
  void (*row)(const std::uint8_t* from, std::uint8_t* to, std::ptrdiff_t pixels);
};
constexpr Unpacker kUnpackers[] = {
    {AV_PIX_FMT_MONOBLACK, kQXPixelFormatGray8, Bits},
    {AV_PIX_FMT_GRAY16BE, kQXPixelFormatGray16, SwapBytes},
    {AV_PIX_FMT_YA8, kQXPixelFormatARGB8888, Reorder<2, 4, 1, 0, 0, 0>},
    {AV_PIX_FMT_YA16BE, kQXPixelFormatARGB8888, ReorderNarrowed<2, 4, 1, 0, 0, 0>},
    {AV_PIX_FMT_RGBA, kQXPixelFormatARGB8888, Reorder<4, 4, 3, 0, 1, 2>},
    {AV_PIX_FMT_BGRA, kQXPixelFormatARGB8888, Reorder<4, 4, 3, 2, 1, 0>},
    {AV_PIX_FMT_RGBA64BE, kQXPixelFormatARGB8888, ReorderNarrowed<4, 4, 3, 0, 1, 2>},
    {AV_PIX_FMT_BGR24, kQXPixelFormatRGB888, Reorder<3, 3, 2, 1, 0>},
    {AV_PIX_FMT_BGR0, kQXPixelFormatRGB888, Reorder<4, 3, 2, 1, 0>},
    {AV_PIX_FMT_RGB48BE, kQXPixelFormatRGB888, ReorderNarrowed<3, 3, 0, 1, 2>},
};

FramePtr NewFrameFor(const PictureView& picture, QXPixelFormat format) {
  return NewPicture(format, static_cast<std::size_t>(picture.width),
                    static_cast<std::size_t>(picture.height), picture.coding);
}

// Calls row(from, to) with each pair of rows.
template <typename Row>
FramePtr UnpackRows(const PictureView& picture, QXPixelFormat format, const Row& row) {
  FramePtr frame = NewFrameFor(picture, format);
  const PictureView target = ViewOf(frame);
  for (std::ptrdiff_t y = 0; y < picture.height; ++y) {
    row(picture.data[0] + y * picture.pitch[0], target.data[0] + y * target.pitch[0]);
  }
  return frame;
}

struct PaletteEntry {
  std::uint8_t alpha, red, green, blue;
};
using Palette = std::array<PaletteEntry, 256>;

Palette PaletteOf(const PictureView& picture) {
  Palette palette{};
  for (std::size_t i = 0; i < palette.size(); ++i) {
    std::uint32_t argb;  // in native byte order
    std::memcpy(&argb, picture.data[1] + 4 * i, sizeof(argb));
    const auto byte = [argb](int shift) { return static_cast<std::uint8_t>(argb >> shift & 0xFF); };
    palette[i] = {byte(24), byte(16), byte(8), byte(0)};
  }
  return palette;
}

QXPixelFormat FormatFor(const Palette& palette) {
  const auto opaque = [](const PaletteEntry& c) { return c.alpha == 255; };
  const auto grey = [](const PaletteEntry& c) { return c.red == c.green && c.green == c.blue; };
  if (!std::all_of(palette.begin(), palette.end(), opaque)) return kQXPixelFormatARGB8888;
  const bool all_grey = std::all_of(palette.begin(), palette.end(), grey);
  return all_grey ? kQXPixelFormatGray8 : kQXPixelFormatRGB888;
}

FramePtr UnpackPalette(const PictureView& picture, QXPixelFormat format) {
  const Palette palette = PaletteOf(picture);
  return UnpackRows(picture, format, [&](const std::uint8_t* from, std::uint8_t* to) {
    for (int x = 0; x < picture.width; ++x) {
      const PaletteEntry& color = palette[from[x]];
      if (format == kQXPixelFormatARGB8888) *to++ = color.alpha;
      *to++ = color.red;
      if (format == kQXPixelFormatGray8) continue;
      *to++ = color.green;
      *to++ = color.blue;
    }
  });
}

// Returns: the row of the table for a picture; null when it has none.
const Unpacker* UnpackerOf(const PictureView& picture) {
  const auto matches = [&](const Unpacker& unpacker) { return unpacker.from == picture.format; };
  const auto* found = std::find_if(std::begin(kUnpackers), std::end(kUnpackers), matches);
  return found != std::end(kUnpackers) ? found : nullptr;
}

// The library's format for a picture that has no row in the table.
QXPixelFormat NearestFormat(const PictureView& picture) {
  if (picture.format == AV_PIX_FMT_GRAY8) return kQXPixelFormatGray8;
  const bool even = picture.width % 2 == 0 && picture.height % 2 == 0;
  if (picture.format == AV_PIX_FMT_YUV420P && even) return kQXPixelFormatYUV420P;
  const AVPixFmtDescriptor* description = av_pix_fmt_desc_get(picture.format);
  const bool alpha = (description->flags & AV_PIX_FMT_FLAG_ALPHA) != 0;
  return alpha ? kQXPixelFormatARGB8888 : kQXPixelFormatRGB888;
}

}  // namespace

QXPixelFormat UnpackedFormat(const PictureView& picture) {
  if (picture.format == AV_PIX_FMT_PAL8) return FormatFor(PaletteOf(picture));
  const Unpacker* unpacker = UnpackerOf(picture);
  return unpacker != nullptr ? unpacker->to : NearestFormat(picture);
}

FramePtr Unpack(const PictureView& picture, QXPixelFormat format) {
  if (picture.format == AV_PIX_FMT_PAL8) return UnpackPalette(picture, format);
  const Unpacker* unpacker = UnpackerOf(picture);
  if (unpacker == nullptr) return ConvertPicture(picture, format);
  return UnpackRows(picture, format, [&](const std::uint8_t* from, std::uint8_t* to) {
    unpacker->row(from, to, picture.width);
  });
}

}  // namespace qx::utils::image::engine
