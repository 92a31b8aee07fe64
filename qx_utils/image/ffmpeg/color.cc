#include "qx_utils/image/ffmpeg/color.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "qx_utils/image/ffmpeg/channels.h"
#include "qx_utils/image/ffmpeg/planes.h"
#include "qx_utils/image/ffmpeg/swscale.h"
#include "qx_utils/image/ffmpeg/yuv_rows.h"
#include "qxtools/argb.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace qx::utils::image::engine {
namespace {

// Alpha of new pixels: opaque, except for ARGB8888, where it is what argb.h writes.
constexpr std::uint8_t kOpaque = 255;
constexpr std::uint8_t kArgbAlpha = 0;

enum class Family { kGrey, kYuv, kRgb, kOther };

Family FamilyOf(AVPixelFormat format) {
  switch (format) {
    case AV_PIX_FMT_GRAY8:
    case AV_PIX_FMT_GRAY16:
      return Family::kGrey;
    case AV_PIX_FMT_NV12:
    case AV_PIX_FMT_NV21:
    case AV_PIX_FMT_YUV420P:
      return Family::kYuv;
    default:
      return PixelOrderOf(format) != nullptr ? Family::kRgb : Family::kOther;
  }
}

// BT.601 has several codes.
bool SameCoding(const YuvCoding& a, const YuvCoding& b) {
  const auto code = [](std::uint8_t matrix) {
    const bool bt601 = matrix == AVCOL_SPC_UNSPECIFIED || matrix == AVCOL_SPC_BT470BG;
    return bt601 ? std::uint8_t{AVCOL_SPC_SMPTE170M} : matrix;
  };
  return a.full_range == b.full_range && code(a.matrix) == code(b.matrix);
}

std::uint8_t* Row(const PictureView& view, std::size_t plane, int y) {
  return view.data[plane] + std::ptrdiff_t{y} * view.pitch[plane];
}

// Rows of one byte per pixel, owned.
template <std::size_t count>
class RowBuffers {
 public:
  explicit RowBuffers(int pixels)
      : pixels_(static_cast<std::size_t>(pixels)), bytes_(count * pixels_) {}
  std::uint8_t* operator[](std::size_t row) { return bytes_.data() + row * pixels_; }

 private:
  std::size_t pixels_;
  std::vector<std::uint8_t> bytes_;
};

// Grey of 16 bits is that of 8 bits times 257, the nearest way back.
void LoadGrey(const PictureView& source, int y, std::uint8_t* grey) {
  const std::uint8_t* const row = Row(source, 0, y);
  if (source.format == AV_PIX_FMT_GRAY8) {
    std::copy_n(row, source.width, grey);
    return;
  }
  const auto* const words = reinterpret_cast<const std::uint16_t*>(row);
  for (int x = 0; x < source.width; ++x) {
    grey[x] = static_cast<std::uint8_t>((words[x] + 128U) / 257U);
  }
}

void StoreGrey(const std::uint8_t* grey, const PictureView& target, int y) {
  std::uint8_t* const row = Row(target, 0, y);
  if (target.format == AV_PIX_FMT_GRAY8) {
    std::copy_n(grey, target.width, row);
    return;
  }
  auto* const words = reinterpret_cast<std::uint16_t*>(row);
  for (int x = 0; x < target.width; ++x) words[x] = static_cast<std::uint16_t>(grey[x] * 257U);
}

// Row `y` of packed pixels, one channel after the other. The alpha is dropped.
class RgbReader {
 public:
  explicit RgbReader(const PictureView& source)
      : source_(source), order_(*PixelOrderOf(source.format)), rows_(source.width) {}

  RgbRows Read(int y) {
    SplitChannels(Row(source_, 0, y), order_.channels, source_.width,
                  {rows_[0], rows_[1], rows_[2], rows_[3]});
    const auto channel = [this](int index) { return rows_[static_cast<std::size_t>(index)]; };
    return {channel(order_.red), channel(order_.green), channel(order_.blue)};
  }

 private:
  const PictureView& source_;
  const PixelOrder& order_;
  RowBuffers<4> rows_;
};

// The reverse, with the alpha of new pixels.
class RgbWriter {
 public:
  explicit RgbWriter(const PictureView& target)
      : target_(target), order_(*PixelOrderOf(target.format)), rows_(target.width) {
    if (order_.alpha < 0) return;
    const std::uint8_t alpha = target.format == AV_PIX_FMT_ARGB ? kArgbAlpha : kOpaque;
    std::fill_n(rows_[static_cast<std::size_t>(order_.alpha)], target.width, alpha);
  }

  // Where to put the channels before Write().
  RgbRows rows() {
    const auto channel = [this](int index) { return rows_[static_cast<std::size_t>(index)]; };
    return {channel(order_.red), channel(order_.green), channel(order_.blue)};
  }

  void Write(int y) {
    MergeChannels({rows_[0], rows_[1], rows_[2], rows_[3]}, order_.channels, target_.width,
                  Row(target_, 0, y));
  }

 private:
  const PictureView& target_;
  const PixelOrder& order_;
  RowBuffers<4> rows_;
};

// The planes of a row of chroma samples; `swapped` and `interleaved` are where V comes first and
// where U and V take turns.
struct ChromaLayout {
  bool interleaved;
  bool swapped;
};

ChromaLayout ChromaLayoutOf(AVPixelFormat format) {
  return {format != AV_PIX_FMT_YUV420P, format == AV_PIX_FMT_NV21};
}

// U and V of row `y` of the chroma planes, as they are or taken apart into `buffer`.
YuvRows LoadChroma(const PictureView& source, int y, RowBuffers<2>& buffer) {
  const ChromaLayout layout = ChromaLayoutOf(source.format);
  if (!layout.interleaved) return {nullptr, Row(source, 1, y), Row(source, 2, y)};
  const std::uint8_t* const pairs = Row(source, 1, y);
  std::uint8_t* const first = buffer[0];
  std::uint8_t* const second = buffer[1];
  const auto samples = static_cast<std::size_t>((source.width + 1) / 2);
  for (std::size_t x = 0; x < samples; ++x) {
    first[x] = pairs[2 * x];
    second[x] = pairs[2 * x + 1];
  }
  return {nullptr, layout.swapped ? second : first, layout.swapped ? first : second};
}

void StoreChroma(const std::uint8_t* u, const std::uint8_t* v, const PictureView& target, int y) {
  const ChromaLayout layout = ChromaLayoutOf(target.format);
  const auto samples = static_cast<std::size_t>((target.width + 1) / 2);
  if (!layout.interleaved) {
    std::copy_n(u, samples, Row(target, 1, y));
    std::copy_n(v, samples, Row(target, 2, y));
    return;
  }
  if (layout.swapped) std::swap(u, v);
  std::uint8_t* const pairs = Row(target, 1, y);
  for (std::size_t x = 0; x < samples; ++x) {
    pairs[2 * x] = u[x];
    pairs[2 * x + 1] = v[x];
  }
}

void GreyToGrey(const PictureView& source, const PictureView& target) {
  RowBuffers<1> grey(source.width);
  for (int y = 0; y < source.height; ++y) {
    LoadGrey(source, y, grey[0]);
    StoreGrey(grey[0], target, y);
  }
}

void GreyToYuv(const PictureView& source, const PictureView& target) {
  RowBuffers<2> row(source.width);
  for (int y = 0; y < source.height; ++y) {
    LoadGrey(source, y, row[0]);
    LumaFromGrey(target.coding, row[0], source.width, Row(target, 0, y));
  }
  std::fill_n(row[1], source.width, std::uint8_t{128});
  for (int y = 0; y < (source.height + 1) / 2; ++y) StoreChroma(row[1], row[1], target, y);
}

void GreyToRgb(const PictureView& source, const PictureView& target) {
  RgbWriter writer(target);
  const RgbRows rgb = writer.rows();
  for (int y = 0; y < source.height; ++y) {
    LoadGrey(source, y, rgb.r);
    std::copy_n(rgb.r, source.width, rgb.g);
    std::copy_n(rgb.r, source.width, rgb.b);
    writer.Write(y);
  }
}

void YuvToGrey(const PictureView& source, const PictureView& target) {
  RowBuffers<1> grey(source.width);
  for (int y = 0; y < source.height; ++y) {
    GreyFromLuma(source.coding, Row(source, 0, y), source.width, grey[0]);
    StoreGrey(grey[0], target, y);
  }
}

// The same samples in another arrangement.
void YuvToYuv(const PictureView& source, const PictureView& target) {
  if (!SameCoding(source.coding, target.coding)) {
    return ScaleInto(source, target, SWS_BICUBIC | SWS_ACCURATE_RND);
  }
  for (int y = 0; y < source.height; ++y) {
    std::copy_n(Row(source, 0, y), source.width, Row(target, 0, y));
  }
  RowBuffers<2> buffer(source.width);
  for (int y = 0; y < (source.height + 1) / 2; ++y) {
    const YuvRows chroma = LoadChroma(source, y, buffer);
    StoreChroma(chroma.u, chroma.v, target, y);
  }
}

void YuvToRgb(const PictureView& source, const PictureView& target) {
  const FromYuv coefficients = FromYuvOf(source.coding);
  RowBuffers<2> buffer(source.width);
  RgbWriter writer(target);
  YuvRows rows{};
  for (int y = 0; y < source.height; ++y) {
    if (y % 2 == 0) rows = LoadChroma(source, y / 2, buffer);
    rows.y = Row(source, 0, y);
    RgbFromYuv(coefficients, rows, source.width, writer.rows());
    writer.Write(y);
  }
}

// Grey is the luma of BT.601 in full range.
void RgbToGrey(const PictureView& source, const PictureView& target) {
  const ToYuv coefficients = ToYuvOf({true, AVCOL_SPC_SMPTE170M});
  RgbReader reader(source);
  RowBuffers<1> grey(source.width);
  for (int y = 0; y < source.height; ++y) {
    LumaFromRgb(coefficients, reader.Read(y), source.width, grey[0]);
    StoreGrey(grey[0], target, y);
  }
}

void RgbToYuv(const PictureView& source, const PictureView& target) {
  const ToYuv coefficients = ToYuvOf(target.coding);
  RgbReader even(source), odd(source);
  RowBuffers<2> chroma(source.width);
  for (int y = 0; y < source.height; y += 2) {
    const RgbRows upper = even.Read(y);
    const bool pair = y + 1 < source.height;
    const RgbRows lower = pair ? odd.Read(y + 1) : upper;
    LumaFromRgb(coefficients, upper, source.width, Row(target, 0, y));
    if (pair) LumaFromRgb(coefficients, lower, source.width, Row(target, 0, y + 1));
    ChromaFromRgb(coefficients, upper, lower, source.width, chroma[0], chroma[1]);
    StoreChroma(chroma[0], chroma[1], target, y / 2);
  }
}

void WidenToArgb(const PictureView& source, const PictureView& target) {
  auto* const widen = source.format == AV_PIX_FMT_RGB24 ? CvtColorRGB2ARGB : CvtColorBGR2ARGB;
  const std::size_t pixels = static_cast<std::size_t>(source.width);
  for (int y = 0; y < source.height; ++y) {
    widen(Row(source, 0, y), 3 * pixels, Row(target, 0, y), 4 * pixels);
  }
}

// The same channels in another order.
void RgbToRgb(const PictureView& source, const PictureView& target) {
  const PixelOrder from = *PixelOrderOf(source.format), to = *PixelOrderOf(target.format);
  if (from.alpha < 0 && target.format == AV_PIX_FMT_ARGB) return WidenToArgb(source, target);
  RowBuffers<5> rows(source.width);
  std::fill_n(rows[4], source.width, kOpaque);
  const auto row = [&](int channel) { return rows[static_cast<std::size_t>(channel)]; };
  ChannelRows out{};
  out[static_cast<std::size_t>(to.red)] = row(from.red);
  out[static_cast<std::size_t>(to.green)] = row(from.green);
  out[static_cast<std::size_t>(to.blue)] = row(from.blue);
  if (to.alpha >= 0) {
    out[static_cast<std::size_t>(to.alpha)] = row(from.alpha >= 0 ? from.alpha : 4);
  }
  for (int y = 0; y < source.height; ++y) {
    SplitChannels(Row(source, 0, y), from.channels, source.width,
                  {rows[0], rows[1], rows[2], rows[3]});
    MergeChannels(out, to.channels, source.width, Row(target, 0, y));
  }
}

using Conversion = void (*)(const PictureView& source, const PictureView& target);

// By the families of source and target, in the order of Family.
constexpr Conversion kConversions[3][3] = {
    {GreyToGrey, GreyToYuv, GreyToRgb},
    {YuvToGrey, YuvToYuv, YuvToRgb},
    {RgbToGrey, RgbToYuv, RgbToRgb},
};

}  // namespace

void ConvertInto(const PictureView& source, const PictureView& target) {
  const Family from = FamilyOf(source.format), to = FamilyOf(target.format);
  const bool coded = from == Family::kYuv || from == Family::kOther;
  if (source.format == target.format && (!coded || SameCoding(source.coding, target.coding))) {
    return CopySamples(source, target);
  }
  if (from == Family::kOther || to == Family::kOther) {
    return ScaleInto(source, target,
                     SWS_BILINEAR | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT | SWS_FULL_CHR_H_INP);
  }
  kConversions[static_cast<int>(from)][static_cast<int>(to)](source, target);
}

FramePtr ConvertPicture(const PictureView& picture, QXPixelFormat format) {
  const bool keep = FamilyOf(picture.format) == Family::kYuv;
  const YuvCoding coding = keep ? picture.coding : YuvCoding{false, AVCOL_SPC_SMPTE170M};
  FramePtr result = NewPicture(format, static_cast<std::size_t>(picture.width),
                               static_cast<std::size_t>(picture.height), coding);
  ConvertInto(picture, ViewOf(result));
  return result;
}

}  // namespace qx::utils::image::engine
