#include "tools/stereo_picture.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>

#include "qx_utils/ffmpeg_handles.h"
#include "tools/planar_picture.h"

namespace qx::tools {
namespace {

using utils::internal::FfmpegPtr;

// How picture files start.
struct Signature {
  std::size_t at;
  std::string_view bytes;
  const char* unreadable;  // the kind's name when it is one that cannot be read
};
using namespace std::string_view_literals;
constexpr Signature kSignatures[] = {
    {0, "\x89PNG"sv, nullptr}, {0, "\xFF\xD8\xFF"sv, nullptr},                           // JPEG
    {0, "BM"sv, nullptr},      {0, "II*\0"sv, nullptr},        {0, "MM\0*"sv, nullptr},  // TIFF
    {8, "WEBP"sv, nullptr},    {0, "GIF8"sv, "GIF"},           {4, "ftypavif"sv, "AVIF"},
    {4, "ftypheic"sv, "HEIF"}};

[[noreturn]] void Fail(const std::string& path, const std::string& reason) {
  throw std::runtime_error("'" + path + "': " + reason);
}

FfmpegPtr<AVFormatContext> Open(const std::string& path) {
  AVFormatContext* opened = nullptr;
  // Without "file:", FFmpeg takes a colon in a file's name for the end of a protocol's.
  if (avformat_open_input(&opened, ("file:" + path).c_str(), nullptr, nullptr) != 0) {
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
    Fail(path, "FFmpeg's picture decoder does not open");
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

}  // namespace

bool IsPictureFile(const std::string& path) {
  std::array<char, 12> start = {};
  std::ifstream(path, std::ios::binary).read(start.data(), start.size());
  const std::string text(start.begin(), start.end());
  const auto is = [&text](const Signature& s) {
    return text.compare(s.at, s.bytes.size(), s.bytes) == 0;
  };
  const auto found = std::find_if(std::begin(kSignatures), std::end(kSignatures), is);
  // Netpbm: grey or colour, as text or bytes.
  const bool is_netpbm =
      text[0] == 'P' && "2356"sv.find(text[1]) != std::string_view::npos && text[2] <= ' ';
  if (found == std::end(kSignatures)) return is_netpbm;
  if (found->unreadable != nullptr) {
    Fail(path,
         found->unreadable +
             std::string(" pictures cannot be read; PNG, JPEG, PGM, PPM, BMP, TIFF and WebP can"));
  }
  return true;
}

GrayPicture ReadPicture(const std::string& path) {
  const auto frame = DecodeOne(path);
  GrayPicture picture;
  picture.width = frame->width;
  picture.height = frame->height;
  picture.luma.resize(static_cast<std::size_t>(frame->width) *
                      static_cast<std::size_t>(frame->height));
  std::uint8_t* rows[4] = {picture.luma.data()};
  const int pitches[4] = {picture.width};
  if (frame->format == AV_PIX_FMT_GRAY8) {
    av_image_copy_plane(rows[0], pitches[0], frame->data[0], frame->linesize[0], frame->width,
                        frame->height);
    return picture;
  }
  const ScalerPtr scaler(sws_getContext(
      frame->width, frame->height, static_cast<AVPixelFormat>(frame->format), frame->width,
      frame->height, AV_PIX_FMT_GRAY8, SWS_POINT, nullptr, nullptr, nullptr));
  if (!scaler || sws_scale(scaler.get(), frame->data, frame->linesize, 0, frame->height, rows,
                           pitches) != frame->height) {
    Fail(path, "its pixel format cannot be converted to grey");
  }
  return picture;
}

}  // namespace qx::tools
