#include "qx_utils/image/ffmpeg/color.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "qx_utils/image/ffmpeg/pixel_order.h"
#include "qx_utils/image/ffmpeg/swscale.h"
#include "qx_utils/image/ffmpeg/yuv_matrix.h"
#include "qx_utils/image/kernels/pixel_rows.h"
#include "qxtools/argb.h"

extern "C" {
#include <libavutil/pixdesc.h>
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

// Rows of one byte per pixel, owned. Each has room for one pixel more.
template <std::size_t count>
class RowBuffers {
 public:
  explicit RowBuffers(int pixels)
      : row_bytes_(static_cast<std::size_t>(pixels) + 1), bytes_(count * row_bytes_) {}

  std::uint8_t* operator[](std::size_t row) { return bytes_.data() + row * row_bytes_; }
  std::uint8_t* Channel(int row) { return (*this)[static_cast<std::size_t>(row)]; }
  ChannelRows Channels() { return {{(*this)[0], (*this)[1], (*this)[2], (*this)[3]}}; }
  RgbRows Rgb(const PixelOrder& order) {
    return {Channel(order.red), Channel(order.green), Channel(order.blue)};
  }

 private:
  std::size_t row_bytes_;
  std::vector<std::uint8_t> bytes_;
};

std::size_t Pixels(const PictureView& view) { return static_cast<std::size_t>(view.width); }
std::size_t ChromaSamples(const PictureView& view) { return (Pixels(view) + 1) / 2; }

void SplitRow(const PictureView& source, int channels, int y, const ChannelRows& rows) {
  const PixelRowsKernel& kernel = ActivePixelRows();
  (channels == 4 ? kernel.split4 : kernel.split3)(Row(source, 0, y), Pixels(source), rows);
}

void MergeRow(const ChannelRows& rows, int channels, const PictureView& target, int y) {
  const PixelRowsKernel& kernel = ActivePixelRows();
  (channels == 4 ? kernel.merge4 : kernel.merge3)(rows, Pixels(target), Row(target, 0, y));
}

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

// Rows of packed pixels, one channel after the other. The alpha is dropped.
class RgbReader {
 public:
  explicit RgbReader(const PictureView& source)
      : source_(source), order_(*PixelOrderOf(source.format)), rows_(source.width) {}

  // Returns: row `y`, and its last pixel once more.
  RgbRows Read(int y) {
    SplitRow(source_, order_.channels, y, rows_.Channels());
    const RgbRows rgb = rows_.Rgb(order_);
    for (std::uint8_t* row : {rgb.r, rgb.g, rgb.b}) row[Pixels(source_)] = row[Pixels(source_) - 1];
    return rgb;
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
    std::fill_n(rows_.Channel(order_.alpha), target.width, alpha);
  }

  // Where to put the channels before Write().
  RgbRows rows() { return rows_.Rgb(order_); }

  void Write(int y) { MergeRow(rows_.Channels(), order_.channels, target_, y); }

 private:
  const PictureView& target_;
  const PixelOrder& order_;
  RowBuffers<4> rows_;
};

bool IsInterleaved(AVPixelFormat format) { return format != AV_PIX_FMT_YUV420P; }

// U and V of a row, without luma.
struct ChromaRows {
  const std::uint8_t* u;
  const std::uint8_t* v;
};

// Returns: row `y` of the chroma planes, as it is or taken apart into `buffer`.
ChromaRows LoadChroma(const PictureView& source, int y, RowBuffers<2>& buffer) {
  if (!IsInterleaved(source.format)) return {Row(source, 1, y), Row(source, 2, y)};
  ActivePixelRows().split2(Row(source, 1, y), ChromaSamples(source), buffer[0], buffer[1]);
  if (source.format == AV_PIX_FMT_NV21) return {buffer[1], buffer[0]};
  return {buffer[0], buffer[1]};
}

void StoreChroma(ChromaRows rows, const PictureView& target, int y) {
  const std::size_t samples = ChromaSamples(target);
  if (!IsInterleaved(target.format)) {
    std::copy_n(rows.u, samples, Row(target, 1, y));
    std::copy_n(rows.v, samples, Row(target, 2, y));
    return;
  }
  if (target.format == AV_PIX_FMT_NV21) std::swap(rows.u, rows.v);
  ActivePixelRows().merge2(rows.u, rows.v, samples, Row(target, 1, y));
}

// Replaces the values of a row by their counterparts.
void LookUp(const ValueTable& table, const std::uint8_t* from, int pixels, std::uint8_t* to) {
  std::transform(from, from + pixels, to, [&](std::uint8_t value) { return table[value]; });
}

void GreyToGrey(const PictureView& source, const PictureView& target) {
  RowBuffers<1> grey(source.width);
  for (int y = 0; y < source.height; ++y) {
    LoadGrey(source, y, grey[0]);
    StoreGrey(grey[0], target, y);
  }
}

void GreyToYuv(const PictureView& source, const PictureView& target) {
  const ValueTable luma = LumaFromGrey(target.coding);
  RowBuffers<2> row(source.width);
  for (int y = 0; y < source.height; ++y) {
    LoadGrey(source, y, row[0]);
    LookUp(luma, row[0], source.width, Row(target, 0, y));
  }
  std::fill_n(row[1], source.width, std::uint8_t{128});
  for (int y = 0; y < (source.height + 1) / 2; ++y) StoreChroma({row[1], row[1]}, target, y);
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
  const ValueTable table = GreyFromLuma(source.coding);
  RowBuffers<1> grey(source.width);
  for (int y = 0; y < source.height; ++y) {
    LookUp(table, Row(source, 0, y), source.width, grey[0]);
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
    StoreChroma(LoadChroma(source, y, buffer), target, y);
  }
}

void YuvToRgb(const PictureView& source, const PictureView& target) {
  const PixelRowsKernel& kernel = ActivePixelRows();
  const FromYuv coefficients = FromYuvOf(source.coding);
  RowBuffers<2> buffer(source.width), doubled(source.width);
  RgbWriter writer(target);
  for (int y = 0; y < source.height; ++y) {
    if (y % 2 == 0) {
      const ChromaRows chroma = LoadChroma(source, y / 2, buffer);
      kernel.merge2(chroma.u, chroma.u, ChromaSamples(source), doubled[0]);
      kernel.merge2(chroma.v, chroma.v, ChromaSamples(source), doubled[1]);
    }
    kernel.rgb_from_yuv(coefficients, {Row(source, 0, y), doubled[0], doubled[1]}, Pixels(source),
                        writer.rows());
    writer.Write(y);
  }
}

// Grey is the luma of BT.601 in full range.
void RgbToGrey(const PictureView& source, const PictureView& target) {
  const ToYuv coefficients = ToYuvOf({true, AVCOL_SPC_SMPTE170M});
  RgbReader reader(source);
  RowBuffers<1> grey(source.width);
  for (int y = 0; y < source.height; ++y) {
    ActivePixelRows().luma_from_rgb(coefficients, reader.Read(y), Pixels(source), grey[0]);
    StoreGrey(grey[0], target, y);
  }
}

void RgbToYuv(const PictureView& source, const PictureView& target) {
  const PixelRowsKernel& kernel = ActivePixelRows();
  const ToYuv coefficients = ToYuvOf(target.coding);
  RgbReader even(source), odd(source);
  RowBuffers<2> chroma(source.width);
  for (int y = 0; y < source.height; y += 2) {
    const RgbRows upper = even.Read(y);
    const bool pair = y + 1 < source.height;
    const RgbRows lower = pair ? odd.Read(y + 1) : upper;
    kernel.luma_from_rgb(coefficients, upper, Pixels(source), Row(target, 0, y));
    if (pair) kernel.luma_from_rgb(coefficients, lower, Pixels(source), Row(target, 0, y + 1));
    kernel.chroma_from_rgb(coefficients, upper, lower, ChromaSamples(source), chroma[0], chroma[1]);
    StoreChroma({chroma[0], chroma[1]}, target, y / 2);
  }
}

void WidenToArgb(const PictureView& source, const PictureView& target) {
  auto* const widen = source.format == AV_PIX_FMT_RGB24 ? CvtColorRGB2ARGB : CvtColorBGR2ARGB;
  for (int y = 0; y < source.height; ++y) {
    widen(Row(source, 0, y), 3 * Pixels(source), Row(target, 0, y), 4 * Pixels(source));
  }
}

// The same channels in another order.
void RgbToRgb(const PictureView& source, const PictureView& target) {
  const PixelOrder from = *PixelOrderOf(source.format), to = *PixelOrderOf(target.format);
  if (from.alpha < 0 && target.format == AV_PIX_FMT_ARGB) return WidenToArgb(source, target);
  RowBuffers<5> rows(source.width);
  std::fill_n(rows[4], source.width, kOpaque);
  ChannelRows out{};
  out.row[to.red] = rows.Channel(from.red);
  out.row[to.green] = rows.Channel(from.green);
  out.row[to.blue] = rows.Channel(from.blue);
  if (to.alpha >= 0) out.row[to.alpha] = rows.Channel(from.alpha >= 0 ? from.alpha : 4);
  for (int y = 0; y < source.height; ++y) {
    SplitRow(source, from.channels, y, rows.Channels());
    MergeRow(out, to.channels, target, y);
  }
}

using Conversion = void (*)(const PictureView& source, const PictureView& target);

// By the families of source and target, in the order of Family.
constexpr Conversion kConversions[3][3] = {
    {GreyToGrey, GreyToYuv, GreyToRgb},
    {YuvToGrey, YuvToYuv, YuvToRgb},
    {RgbToGrey, RgbToYuv, RgbToRgb},
};

int RoundedUp(int size, int bits) { return ((size - 1) >> bits << bits) + (1 << bits); }

// Returns: a picture of FFmpeg's own, whose memory is larger, up to whole chroma samples.
PictureView WithWholeChroma(const PictureView& picture) {
  PictureView whole = picture;
  if (FamilyOf(picture.format) != Family::kOther || !picture.padded) return whole;
  const AVPixFmtDescriptor& format = *av_pix_fmt_desc_get(picture.format);
  whole.width = RoundedUp(picture.width, format.log2_chroma_w);
  whole.height = RoundedUp(picture.height, format.log2_chroma_h);
  return whole;
}

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
  const PictureView whole = WithWholeChroma(picture);
  if (whole.width == picture.width && whole.height == picture.height) {
    ConvertInto(picture, ViewOf(result));
    return result;
  }
  // libswscale stretches the chroma of an odd size over one column or row too few.
  const FramePtr larger = ConvertPicture(whole, format);
  PictureView part = ViewOf(larger);
  part.width = picture.width;
  part.height = picture.height;
  CopySamples(part, ViewOf(result));
  return result;
}

}  // namespace qx::utils::image::engine
