#include "qx_utils/image/ffmpeg/encode.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "qx_utils/image/ffmpeg/color.h"
#include "qx_utils/image/ffmpeg/failure.h"
#include "qx_utils/image/ffmpeg/jpeg_writer.h"

namespace qx::utils::image::engine {
namespace {

using internal::FfmpegPtr;

constexpr std::uint32_t kDefaultQuality = 90;
constexpr std::uint32_t kLastSubsampledQuality = 90;

std::uint32_t QualityOf(const EncodeParams& params) {
  if (params.quality > 100) {
    throw Failure("quality " + std::to_string(params.quality) + " is not in 0 .. 100");
  }
  return params.quality == 0 ? kDefaultQuality : params.quality;
}

bool IsBt601(std::uint8_t matrix) {
  return matrix == AVCOL_SPC_BT470BG || matrix == AVCOL_SPC_SMPTE170M ||
         matrix == AVCOL_SPC_UNSPECIFIED;
}

bool IsSubsampled(AVPixelFormat format) {
  return format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_NV12 || format == AV_PIX_FMT_NV21;
}

FfmpegPtr<AVFrame> EmptyFrame(const PictureView& picture, AVPixelFormat format) {
  FfmpegPtr<AVFrame> frame = Own(av_frame_alloc(), "av_frame_alloc");
  frame->format = format;
  frame->width = picture.width;
  frame->height = picture.height;
  return frame;
}

// Lends FFmpeg the picture's own memory, which must outlive the frame. FFmpeg would copy it if it
// had no reference to count.
FfmpegPtr<AVFrame> Lent(const PictureView& picture) {
  FfmpegPtr<AVFrame> frame = EmptyFrame(picture, picture.format);
  std::copy(picture.data.begin(), picture.data.end(), frame->data);
  std::copy(picture.pitch.begin(), picture.pitch.end(), frame->linesize);
  const auto nothing_to_free = [](void*, std::uint8_t*) {};
  frame->buf[0] =
      av_buffer_create(picture.data[0], 1, nothing_to_free, nullptr, AV_BUFFER_FLAG_READONLY);
  if (frame->buf[0] == nullptr) throw Failure("av_buffer_create failed");
  return frame;
}

FfmpegPtr<AVFrame> Allocated(const PictureView& picture, AVPixelFormat format) {
  FfmpegPtr<AVFrame> frame = EmptyFrame(picture, format);
  Check(av_frame_get_buffer(frame.get(), 0), "av_frame_get_buffer");
  return frame;
}

FfmpegPtr<AVFrame> Converted(const PictureView& picture, AVPixelFormat format) {
  if (picture.format == format) return Lent(picture);
  FfmpegPtr<AVFrame> frame = Allocated(picture, format);
  ConvertInto(picture, ViewOf(*frame));
  return frame;
}

// Stretches samples of 16 .. 235, and chroma of 16 .. 240, to full range.
void Stretch(const PictureView& picture) {
  for (std::size_t plane = 0; plane < 3; ++plane) {
    const double offset = plane == 0 ? 16 : 128, target = plane == 0 ? 0 : 128;
    const double scale = plane == 0 ? 255.0 / 219 : 255.0 / 224;
    std::array<std::uint8_t, 256> table{};
    for (std::size_t i = 0; i < table.size(); ++i) {
      const double value = (static_cast<double>(i) - offset) * scale + target;
      table[i] = static_cast<std::uint8_t>(std::clamp(std::lround(value), 0L, 255L));
    }
    const PlaneSize size = SizeOfPlane(picture, plane);
    for (std::ptrdiff_t y = 0; y < size.rows; ++y) {
      std::uint8_t* const row = picture.data[plane] + y * picture.pitch[plane];
      for (int x = 0; x < size.row_bytes; ++x) row[x] = table[row[x]];
    }
  }
}

// Returns: planar samples of full range.
// Inputs:  picture  4:2:0
FfmpegPtr<AVFrame> InFullRange(const PictureView& picture) {
  if (picture.format == AV_PIX_FMT_YUV420P && picture.coding.full_range) return Lent(picture);
  FfmpegPtr<AVFrame> frame = Allocated(picture, AV_PIX_FMT_YUV420P);
  PictureView target = ViewOf(*frame);
  target.coding = picture.coding;
  ConvertInto(picture, target);
  if (!picture.coding.full_range) Stretch(target);
  return frame;
}

void Refuse16Bits(const PictureView& picture, const char* name) {
  if (picture.format != AV_PIX_FMT_GRAY16) return;
  throw Failure(std::string(name) + " has no 16-bit grey; convert the frame to Gray8 first");
}

FfmpegPtr<AVFrame> ForPng(const PictureView& picture) {
  switch (picture.format) {
    case AV_PIX_FMT_GRAY8:
      return Lent(picture);
    case AV_PIX_FMT_GRAY16:
      return Converted(picture, AV_PIX_FMT_GRAY16BE);
    case AV_PIX_FMT_ARGB:
    case AV_PIX_FMT_BGRA:
      return Converted(picture, AV_PIX_FMT_RGBA);
    default:
      return Converted(picture, AV_PIX_FMT_RGB24);
  }
}

FfmpegPtr<AVFrame> ForBmp(const PictureView& picture) {
  Refuse16Bits(picture, "BMP");
  return picture.format == AV_PIX_FMT_GRAY8 ? Lent(picture) : Converted(picture, AV_PIX_FMT_BGR24);
}

FfmpegPtr<AVCodecContext> NewEncoder(AVCodecID id, const AVFrame& picture) {
  const AVCodec* codec = avcodec_find_encoder(id);
  if (codec == nullptr) {
    throw Failure(std::string("FFmpeg was built without an encoder for ") + avcodec_get_name(id));
  }
  FfmpegPtr<AVCodecContext> context = Own(avcodec_alloc_context3(codec), "avcodec_alloc_context3");
  context->width = picture.width;
  context->height = picture.height;
  context->pix_fmt = static_cast<AVPixelFormat>(picture.format);
  context->time_base = {1, 25};  // has to be something
  context->thread_count = 1;
  return context;
}

std::vector<unsigned char> Encoded(AVCodecContext& context, const AVFrame& picture) {
  const FfmpegPtr<AVPacket> packet = Own(av_packet_alloc(), "av_packet_alloc");
  Check(avcodec_send_frame(&context, &picture), "avcodec_send_frame");
  Check(avcodec_receive_packet(&context, packet.get()), "avcodec_receive_packet");
  return {packet->data, packet->data + packet->size};
}

std::vector<unsigned char> EncodeLossless(AVCodecID id, const AVFrame& picture) {
  const FfmpegPtr<AVCodecContext> context = NewEncoder(id, picture);
  Check(avcodec_open2(context.get(), nullptr, nullptr), "avcodec_open2");
  return Encoded(*context, picture);
}

std::vector<unsigned char> EncodeJpeg(const PictureView& picture, std::uint32_t quality) {
  Refuse16Bits(picture, "JPEG");
  if (!IsSubsampled(picture.format)) {
    return WriteJpeg(picture, quality, quality <= kLastSubsampledQuality);
  }
  const FfmpegPtr<AVFrame> source =
      IsBt601(picture.coding.matrix) ? InFullRange(picture) : Converted(picture, AV_PIX_FMT_RGB24);
  return WriteJpeg(ViewOf(*source), quality, true);
}

}  // namespace

std::vector<unsigned char> EncodePicture(const FramePtr& frame, ImageFileFormat format,
                                         const EncodeParams& params) {
  const std::uint32_t quality = QualityOf(params);
  const PictureView picture = ViewOf(frame);
  switch (format) {
    case kImageFileFormatJpeg:
      return EncodeJpeg(picture, quality);
    case kImageFileFormatPng:
      return EncodeLossless(AV_CODEC_ID_PNG, *ForPng(picture));
    case kImageFileFormatBmp:
      return EncodeLossless(AV_CODEC_ID_BMP, *ForBmp(picture));
  }
  throw Failure("file format " + std::to_string(format) + " is unknown");
}

}  // namespace qx::utils::image::engine
