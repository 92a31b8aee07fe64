// Owners of FFmpeg's handles, and the one place that knows how FFmpeg's generations differ. Only
// sources that call FFmpeg include it.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(58, 87, 100)  // part of avcodec.h before
#include <libavcodec/bsf.h>
#endif
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
}

#include <memory>

namespace qx::utils::internal {

struct FfmpegDeleter {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVBSFContext* context) const { av_bsf_free(&context); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVDictionary* dictionary) const { av_dict_free(&dictionary); }
};

template <typename T>
using FfmpegPtr = std::unique_ptr<T, FfmpegDeleter>;

// Whether packets carry the sender's wall clock as side data, and the type of its size.
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(58, 66, 100)
#define QXTOOLS_HAS_WALL_CLOCK
#endif
#if LIBAVCODEC_VERSION_MAJOR >= 59
using SideDataSize = std::size_t;
#else
using SideDataSize = int;
#endif

// The type of a buffer's size.
#if LIBAVUTIL_VERSION_MAJOR >= 57
using BufferSize = std::size_t;
#else
using BufferSize = int;
#endif

// Reads a packet that owns its payload. FFmpeg before 4.3 also returns payloads that the next read
// overwrites.
inline int ReadPacket(AVFormatContext* context, AVPacket* packet) {
  const int code = av_read_frame(context, packet);
  if (code != 0) return code;
  const int owned = av_packet_make_refcounted(packet);
  if (owned != 0) av_packet_unref(packet);
  return owned;
}

// Makes a filter forget a packet that it has rejected. FFmpeg 4.0 has no such call, but its filters
// do not keep rejected packets.
inline void FlushFilter([[maybe_unused]] AVBSFContext* filter) {
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(58, 23, 100)
  av_bsf_flush(filter);
#endif
}

// FFmpeg's parser gives the first picture of an RTSP connection no time. Before libavformat 59
// FFmpeg then invents one, which is some pictures too late.
constexpr bool kInventsFirstTime = LIBAVFORMAT_VERSION_MAJOR < 59;

// Gives a packet on the stack FFmpeg's initial values. The function is deprecated since libavcodec
// 59 but still there.
inline void InitPacket(AVPacket& packet) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  av_init_packet(&packet);
#pragma GCC diagnostic pop
  packet.data = nullptr;
  packet.size = 0;
}

// Returns: whether decoding can begin at `picture`.
inline bool IsKeyPicture(const AVFrame& picture) {
#ifdef AV_FRAME_FLAG_KEY
  return (picture.flags & AV_FRAME_FLAG_KEY) != 0;
#else
  return picture.key_frame != 0;
#endif
}

}  // namespace qx::utils::internal
