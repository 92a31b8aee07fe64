#include "tools/media/ffmpeg.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <new>
#include <stdexcept>

#include "qx_utils/ffmpeg_handles.h"

namespace qx::tools {
namespace {

using utils::internal::FfmpegPtr;

struct ScalerDeleter {
  void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};
using ScalerPtr = std::unique_ptr<SwsContext, ScalerDeleter>;

std::string VersionText(unsigned version) {
  return std::to_string(AV_VERSION_MAJOR(version)) + '.' +
         std::to_string(AV_VERSION_MINOR(version)) + '.' +
         std::to_string(AV_VERSION_MICRO(version));
}

[[noreturn]] void Fail(const std::string& path, const std::string& reason) {
  throw std::runtime_error("'" + path + "': " + reason);
}

FfmpegPtr<AVFormatContext> Open(const std::string& path) {
  AVFormatContext* opened = nullptr;
  if (avformat_open_input(&opened, FileUrl(path).c_str(), nullptr, nullptr) != 0) {
    Fail(path, "cannot be opened as a picture");
  }
  FfmpegPtr<AVFormatContext> input(opened);
  if (avformat_find_stream_info(input.get(), nullptr) < 0 || input->nb_streams == 0) {
    Fail(path, "damaged picture");
  }
  return input;
}

FfmpegPtr<AVCodecContext> OpenDecoder(const std::string& path, const AVCodecParameters& codec) {
  const AVCodec* decoder = avcodec_find_decoder(codec.codec_id);
  if (decoder == nullptr) Fail(path, "FFmpeg has no decoder for this kind of picture");
  FfmpegPtr<AVCodecContext> context(avcodec_alloc_context3(decoder));
  if (!context || avcodec_parameters_to_context(context.get(), &codec) < 0 ||
      avcodec_open2(context.get(), decoder, nullptr) < 0) {
    Fail(path, "cannot open FFmpeg's decoder for this kind of picture");
  }
  return context;
}

FfmpegPtr<AVFrame> DecodeOne(const std::string& path) {
  const auto input = Open(path);
  const auto decoder = OpenDecoder(path, *input->streams[0]->codecpar);
  FfmpegPtr<AVPacket> packet(av_packet_alloc());
  FfmpegPtr<AVFrame> frame(av_frame_alloc());
  if (!packet || !frame) throw std::bad_alloc();
  if (av_read_frame(input.get(), packet.get()) < 0 ||
      avcodec_send_packet(decoder.get(), packet.get()) < 0 ||
      avcodec_send_packet(decoder.get(), nullptr) < 0 ||
      avcodec_receive_frame(decoder.get(), frame.get()) < 0 || frame->decode_error_flags != 0) {
    Fail(path, "damaged picture");
  }
  return frame;
}

std::size_t Area(int width, int height) {
  return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

// Where a conversion reads and writes: addresses and pitches of the planes.
struct Planes {
  const std::uint8_t* const* data;
  const int* pitches;
};

// How pixels are stored.
struct SourceFormat {
  AVPixelFormat format;
  bool full_range;
  int matrix;
};

bool IsRgb(AVPixelFormat format) {
  const AVPixFmtDescriptor* description = av_pix_fmt_desc_get(format);
  return (description->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) != 0;
}

bool IsGrey(AVPixelFormat format) {
  const AVPixFmtDescriptor* description = av_pix_fmt_desc_get(format);
  return description->nb_components <= 2 && !IsRgb(format);  // with alpha or without
}

ScalerPtr MakeRgbScaler(int width, int height, const SourceFormat& source) {
  ScalerPtr scaler(sws_getContext(width, height, source.format, width, height, AV_PIX_FMT_RGB24,
                                  SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr,
                                  nullptr, nullptr));
  if (!scaler || IsRgb(source.format)) return scaler;
  const int* matrix = sws_getCoefficients(source.matrix);
  constexpr int kOne = 1 << 16;  // contrast and saturation stay as they are
  if (sws_setColorspaceDetails(scaler.get(), matrix, source.full_range ? 1 : 0, matrix, 0, 0, kOne,
                               kOne) < 0) {
    return nullptr;
  }
  return scaler;
}

// Returns: an empty picture when FFmpeg cannot convert it.
Image<Rgb> ConvertToRgb(int width, int height, const SourceFormat& format, const Planes& from) {
  Image<Rgb> rgb(width, height);
  std::uint8_t* to[] = {&rgb.values.data()->r};
  const int to_pitch[] = {3 * width};
  const ScalerPtr scaler = MakeRgbScaler(width, height, format);
  if (!scaler ||
      sws_scale(scaler.get(), from.data, from.pitches, 0, height, to, to_pitch) != height) {
    return {};
  }
  return rgb;
}

Image<std::uint8_t> GreyOf(const AVFrame& frame, const std::string& path) {
  Image<std::uint8_t> picture(frame.width, frame.height);
  std::uint8_t* rows[4] = {picture.values.data()};
  const int pitches[4] = {picture.width};
  if (frame.format == AV_PIX_FMT_GRAY8) {
    av_image_copy_plane(rows[0], pitches[0], frame.data[0], frame.linesize[0], frame.width,
                        frame.height);
    return picture;
  }
  const ScalerPtr scaler(sws_getContext(
      frame.width, frame.height, static_cast<AVPixelFormat>(frame.format), frame.width,
      frame.height, AV_PIX_FMT_GRAY8, SWS_POINT, nullptr, nullptr, nullptr));
  if (!scaler || sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, rows,
                           pitches) != frame.height) {
    Fail(path, "its pixel format cannot be converted to grey");
  }
  return picture;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> FfmpegVersions() {
  return {{"ffmpeg", av_version_info()},
          {"libavformat", VersionText(avformat_version())},
          {"libavcodec", VersionText(avcodec_version())},
          {"libavutil", VersionText(avutil_version())},
          {"libswscale", VersionText(swscale_version())}};
}

void HideFfmpegLog() { av_log_set_level(AV_LOG_QUIET); }

void ShowFfmpegLog() { av_log_set_level(AV_LOG_WARNING); }

std::string FileUrl(const std::string& path) { return "file:" + path; }

Image<Rgb> ToRgb(I420Picture picture) {
  constexpr std::size_t kReadAhead = 64;  // bytes that swscale reads past the end of a row, at most
  const int chroma_width = (picture.width + 1) / 2;
  const std::size_t luma_bytes = Area(picture.width, picture.height);
  const std::size_t chroma_bytes = Area(chroma_width, (picture.height + 1) / 2);
  picture.samples.resize(luma_bytes + 2 * chroma_bytes + kReadAhead);
  const std::uint8_t* luma = picture.samples.data();
  const std::uint8_t* from[] = {luma, luma + luma_bytes, luma + luma_bytes + chroma_bytes};
  const int from_pitch[] = {picture.width, chroma_width, chroma_width};
  auto rgb =
      ConvertToRgb(picture.width, picture.height,
                   {AV_PIX_FMT_YUV420P, picture.full_range, picture.matrix}, {from, from_pitch});
  if (rgb.values.empty()) throw std::runtime_error("FFmpeg cannot convert the picture to RGB");
  return rgb;
}

Image<std::uint8_t> ReadPicture(const std::string& path) { return GreyOf(*DecodeOne(path), path); }

Image<Rgb> ReadColours(const std::string& path) {
  const auto frame = DecodeOne(path);
  const auto format = static_cast<AVPixelFormat>(frame->format);
  if (IsGrey(format)) return {};
  const bool full_range = frame->color_range == AVCOL_RANGE_JPEG;
  auto rgb = ConvertToRgb(frame->width, frame->height, {format, full_range, frame->colorspace},
                          {frame->data, frame->linesize});
  if (rgb.values.empty()) Fail(path, "its pixel format cannot be converted to RGB");
  return rgb;
}

}  // namespace qx::tools
