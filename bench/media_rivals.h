// What an application without the media processor's front ends would call: FFmpeg's own functions,
// libjpeg-turbo and libpng, each as its fastest user calls it, with everything kept that can be.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "qx_utils/ffmpeg_handles.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace qx::bench {

using utils::internal::FfmpegPtr;
using Bytes = std::vector<std::uint8_t>;

// Decodes the same file again and again: its bytes are in FFmpeg's own memory from the start.
class BareDecoder {
 public:
  BareDecoder(AVCodecID codec, const Bytes& file);

  // Returns: the picture; valid until the next call.
  const AVFrame& Run();

 private:
  FfmpegPtr<AVCodecContext> context_;
  FfmpegPtr<AVPacket> packet_{av_packet_alloc()};
  FfmpegPtr<AVFrame> frame_{av_frame_alloc()};
};

// Encodes pictures of the size and format of `like`.
// Inputs: scale  FFmpeg's quantiser scale; 0: for formats without one
class BareEncoder {
 public:
  BareEncoder(AVCodecID codec, const AVFrame& like, int scale);

  // Returns: the file; valid until the next call.
  const AVPacket& Run(const AVFrame& picture);

 private:
  FfmpegPtr<AVCodecContext> context_;
  FfmpegPtr<AVPacket> packet_{av_packet_alloc()};
};

// Scales pictures like `from` to width x height of the same format, with libswscale's `flags`.
class BareScaler {
 public:
  BareScaler(const AVFrame& from, int width, int height, int flags);

  const AVFrame& Run(const AVFrame& picture);

 private:
  std::unique_ptr<SwsContext, void (*)(SwsContext*)> context_;
  FfmpegPtr<AVFrame> scaled_{av_frame_alloc()};
};

// Returns: a picture with memory for it. `format`: AVPixelFormat.
FfmpegPtr<AVFrame> NewPicture(int format, int width, int height);

#if defined(QXTOOLS_HAVE_TURBOJPEG)
// libjpeg-turbo with planes of 4:2:0 on one side.
class Turbo {
 public:
  Turbo();

  void Decode(const Bytes& file, AVFrame& picture);
  // Returns: the size of the file. Inputs: quality  1 .. 100, libjpeg's
  std::size_t Encode(const AVFrame& picture, int quality);

 private:
  using Handle = std::unique_ptr<void, int (*)(void*)>;
  Handle decoder_;
  Handle encoder_;
  Bytes file_;
};
#endif

// libpng's simplified interface, RGB. The buffers are the caller's.
void PngDecode(const Bytes& file, Bytes& rgb);
std::size_t PngEncode(const Bytes& rgb, int width, int height, Bytes& file);

}  // namespace qx::bench
