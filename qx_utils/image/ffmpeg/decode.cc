#include "qx_utils/image/ffmpeg/decode.h"

#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "qx_utils/image/ffmpeg/decoded_memory.h"
#include "qx_utils/image/ffmpeg/failure.h"
#include "qx_utils/image/ffmpeg/file_header.h"
#include "qx_utils/image/ffmpeg/unpack.h"
#include "qxtools/ffmpeg_media_proc.h"

namespace qx::utils::image::engine {
namespace {

using internal::FfmpegPtr;

// FFmpeg reads past the end of what it decodes, hence the copy, which it pads.
FfmpegPtr<AVPacket> PacketOf(const std::uint8_t* data, std::size_t size) {
  FfmpegPtr<AVPacket> packet = Own(av_packet_alloc(), "av_packet_alloc");
  Check(av_new_packet(packet.get(), static_cast<int>(size)), "av_new_packet");
  std::memcpy(packet->data, data, size);
  return packet;
}

FfmpegPtr<AVCodecContext> OpenDecoder(AVCodecID id) {
  const AVCodec* codec = avcodec_find_decoder(id);
  if (codec == nullptr) {
    throw Failure(std::string("FFmpeg was built without a decoder for ") + avcodec_get_name(id));
  }
  FfmpegPtr<AVCodecContext> context = Own(avcodec_alloc_context3(codec), "avcodec_alloc_context3");
  context->thread_count = 1;
  context->thread_type = FF_THREAD_SLICE;  // FFmpeg warns of frame threads with own buffers
  context->get_buffer2 = GetDecoderBuffer;
  context->max_pixels = static_cast<std::int64_t>(kMaxEnginePixels);
  context->err_recognition = AV_EF_CRCCHECK | AV_EF_BITSTREAM | AV_EF_BUFFER | AV_EF_EXPLODE;
  Check(avcodec_open2(context.get(), codec, nullptr), "avcodec_open2");
  return context;
}

FfmpegPtr<AVFrame> Decoded(AVCodecID codec, const std::uint8_t* data, std::size_t size) {
  const FfmpegPtr<AVCodecContext> context = OpenDecoder(codec);
  const FfmpegPtr<AVPacket> packet = PacketOf(data, size);
  FfmpegPtr<AVFrame> picture = Own(av_frame_alloc(), "av_frame_alloc");
  Check(avcodec_send_packet(context.get(), packet.get()), "avcodec_send_packet");
  Check(avcodec_receive_frame(context.get(), picture.get()), "avcodec_receive_frame");
  if (picture->decode_error_flags != 0 || (picture->flags & AV_FRAME_FLAG_CORRUPT) != 0) {
    throw Failure("the file is damaged");
  }
  return picture;
}

// BMP palettes have no alpha, and FFmpeg leaves colours that the file does not define at 0.
void MakePaletteOpaque(const AVFrame& picture) {
  for (std::size_t i = 0; i < AVPALETTE_COUNT; ++i) {
    std::uint32_t argb;  // in native byte order
    std::memcpy(&argb, picture.data[1] + i * sizeof(argb), sizeof(argb));
    argb |= 0xFF000000;
    std::memcpy(picture.data[1] + i * sizeof(argb), &argb, sizeof(argb));
  }
}

// FFmpeg's old formats for JPEG say full range in the format itself.
PictureView WithoutRangeInFormat(PictureView view) {
  const std::pair<AVPixelFormat, AVPixelFormat> pairs[] = {
      {AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV420P}, {AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUV422P},
      {AV_PIX_FMT_YUVJ444P, AV_PIX_FMT_YUV444P}, {AV_PIX_FMT_YUVJ440P, AV_PIX_FMT_YUV440P},
      {AV_PIX_FMT_YUVJ411P, AV_PIX_FMT_YUV411P},
  };
  for (const auto& [old_format, format] : pairs) {
    if (view.format != old_format) continue;
    view.format = format;
    view.coding.full_range = true;
  }
  return view;
}

}  // namespace

FramePtr DecodePicture(const std::uint8_t* data, std::size_t size) {
  if (data == nullptr || size == 0) throw Failure("there is no data");
  if (size > std::numeric_limits<int>::max() - std::size_t{AV_INPUT_BUFFER_PADDING_SIZE}) {
    throw Failure(std::to_string(size) + " bytes are more than FFmpeg takes");
  }
  const FileHeader header = ReadFileHeader(data, size);
  CheckSize(header.width, header.height);
  FfmpegPtr<AVFrame> picture = Decoded(header.codec, data, header.size);
  if (header.codec == AV_CODEC_ID_BMP && picture->format == AV_PIX_FMT_PAL8) {
    MakePaletteOpaque(*picture);
  }
  const PictureView view = WithoutRangeInFormat(ViewOf(*picture));
  const QXPixelFormat format = UnpackedFormat(view);
  if (AvFormatOf(format) != view.format) return Unpack(view, format);
  FramePtr frame = Adopt(picture, view, format);
  return frame != nullptr ? frame : Unpack(view, format);
}

}  // namespace qx::utils::image::engine
