// The media interfaces: packets, demuxer, decoder and encoder, each reached through its factory.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "qxtools/export.h"
#include "qxtools/image_frame.h"

namespace qx::utils::video {

// Compressed-video codecs. A demuxer produces only these two values.
enum VideoCodec : std::uint32_t {
  kVideoCodecH264 = 0,
  kVideoCodecH265 = 3,
};

// One demuxed packet. Demuxers hand packets out inside a std::shared_ptr that owns the payload:
// `data` is valid only while a copy of that pointer exists.
//
// Threads: copies of the pointer may be made and released on any thread.
struct StreamPacket {
  std::uint8_t* data;       // first byte of the payload, in the container's own framing
  std::uint64_t size;       // bytes at `data`
  std::uint64_t reserved0;  // zero
  VideoCodec codec;
  std::uint64_t reserved1;  // zero
  std::uint64_t reserved2;  // zero
};

// Turns a file or stream into the packets of one video stream: CreateInstance(), Open(), then
// ReadFrame() until it returns an empty pointer.
//
// Threads: one demuxer is used by one thread at a time; different demuxers are independent.
class QXTOOLS_EXPORT Demuxer {
 public:
  // Options of Open(). There are none.
  struct Config {};

  virtual ~Demuxer();

  // Opens `url` and selects its first H.264 or H.265 video stream.
  // Returns: 0, or a negative value when the input cannot be opened or has no such stream.
  virtual int Open(const std::string& url, const Config& config) = 0;

  // Returns: the next packet of the chosen stream, never with size 0; empty at the end of the
  //          input or after an error.
  virtual std::shared_ptr<StreamPacket> ReadFrame() = 0;

  // Returns: a new demuxer for files and RTSP cameras, with no input open. Safe from any thread.
  static std::shared_ptr<Demuxer> CreateInstance();
};

// Receives decoded frames, each with the pointer that was passed with its packet. The callback
// shares ownership of the frame and may keep it for as long as it likes.
using FrameCallback =
    std::function<void(std::shared_ptr<velkar::vision::ImageFrame> frame, void* user_data)>;

// Turns packets into frames. See ffmpeg_video_decoder.h for the one the library implements and
// for the exact results of each operation.
class QXTOOLS_EXPORT Decoder {
 public:
  virtual ~Decoder();

  // Returns: 0, or -1 when no decoder could be opened.
  virtual int Init() = 0;

  // Sets the receiver of decoded frames. Call it before the first SendFrame().
  // Returns: 0.
  virtual int SetCallback(FrameCallback callback) = 0;

  // Decodes one packet on the calling thread and queues the picture for the callback.
  // Returns: 0 when a frame was queued, a negative value when none was.
  virtual int SendFrame(std::shared_ptr<StreamPacket> packet, void* user_data) = 0;

  // Returns: empty. Decoders are made by qx::utils::ffmpeg::CreateFfmpegDecoder().
  static std::shared_ptr<Decoder> CreateInstance();
};

// Reserved for encoders; the library has none.
class QXTOOLS_EXPORT Encoder {
 public:
  virtual ~Encoder();

  // Returns: empty.
  static std::shared_ptr<Encoder> CreateInstance();
};

}  // namespace qx::utils::video
