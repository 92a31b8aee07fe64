// Owners for FFmpeg's handles, and the one place that knows how FFmpeg's generations differ.
// Included by the FFmpeg source files alone.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
}

#include <memory>

namespace qx {
namespace utils {
namespace internal {

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

// Side data that tells a sender's wall clock, and the type of its size.
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(58, 66, 100)
#define QXTOOLS_HAS_WALL_CLOCK
#endif
#if LIBAVCODEC_VERSION_MAJOR >= 59
using SideDataSize = std::size_t;
#else
using SideDataSize = int;
#endif

// Gives a packet on the stack FFmpeg's initial values. Generations from libavcodec 59 on call the
// function deprecated and keep it.
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

}  // namespace internal
}  // namespace utils
}  // namespace qx
