// H.264 packets in, frames on a callback out.
//
// Each packet is decoded at once on the caller's thread; a worker thread that the decoder owns
// hands the frames to a callback, so a slow consumer never holds up the caller.
//
//   using namespace qx::utils;
//   auto decoder = ffmpeg::CreateFfmpegDecoder();
//   if (decoder->Init() != 0) return false;
//   decoder->SetCallback([](std::shared_ptr<velkar::vision::ImageFrame> frame, void* user_data) {
//     const ffmpeg::FrameLayout* layout = ffmpeg::LayoutOf(frame);
//     ...                                          // may keep `frame` for as long as it likes
//   });
//   std::size_t sent = 0;                          // frames that will reach the callback
//   while (auto packet = demuxer->ReadFrame()) {   // packets in Annex B form
//     const int status = decoder->SendFrame(packet, user_data);
//     if (status == ffmpeg::kDecodeOk) ++sent;
//     else if (status != ffmpeg::kDecodeNoPicture) Report(status);    // and go on
//   }
//   const auto drain = std::make_shared<video::StreamPacket>();       // null data, size 0
//   for (int status = 0; status != ffmpeg::kDecodeEndOfStream;) {     // pictures held back
//     status = decoder->SendFrame(drain, nullptr);
//     if (status == ffmpeg::kDecodeOk) ++sent;
//   }
//   ...                                            // wait until the callback has counted `sent`
//   decoder.reset();                               // discards what was not delivered yet
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <thread>

#include "qxtools/export.h"
#include "qxtools/image_frame.h"
#include "qxtools/video.h"

struct AVCodec;
struct AVCodecContext;
struct AVFrame;

namespace qx {
namespace utils {
namespace ffmpeg {

template <typename T>
class BlockingQueue;
class CallbackSlot;
struct QueuedFrame;

// Results of FfmpegDecoder::SendFrame(). All but kDecodeOk queue nothing, and after all of them
// the decoder can be used further and destroyed.
enum DecodeStatus : int {
  kDecodeOk = 0,                  // a frame was queued for the callback
  kDecodeFailed = -1,             // FFmpeg reported an error: damaged or unsuitable payload
  kDecodeNoPicture = -2,          // the packet completed no picture: send the next one
  kDecodeNullPacket = -3,         // the packet pointer was empty
  kDecodeNotInitialised = -4,     // Init() was not called or did not return 0
  kDecodeEndOfStream = -5,        // drained: no picture is held back any more
  kDecodeUnsupportedFormat = -6,  // the picture is not 8-bit 4:2:0; one ERROR line names its format
  kDecodeInvalidPacket = -7,      // only one of data and size is empty, or size is above INT_MAX
  kDecodePictureTooLarge = -8,    // the picture does not fit 31 bits of bytes; one ERROR line
  kDecodeOutOfMemory = -9,        // FFmpeg had no memory for a picture's description
};

// Where the samples of a decoded frame lie. Frames keep Width(), Height() and Channel() at 0.
struct FrameLayout {
  struct Plane {
    std::uint32_t offset;     // of the plane's first byte, from ImageFrame::Data()
    std::uint32_t pitch;      // bytes from one row to the next
    std::uint32_t row_bytes;  // bytes of a row that hold samples; the rest is not initialised
    std::uint32_t rows;
  };

  std::uint32_t width;        // of the picture after cropping, in pixels
  std::uint32_t height;       // in pixels
  std::uint32_t plane_count;  // 3: Y, U, V (kQXPixelFormatYUV420P); 2: Y and interleaved chroma
  Plane planes[3];            // those from `plane_count` on are zero
  bool full_range;            // samples span 0 .. 255 instead of 16 .. 235 (chroma 16 .. 240)
};

// Returns: the layout of a frame that an FfmpegDecoder made, valid for as long as the frame; null
//          for every other frame, for copies of a frame and for an empty pointer.
// Threads: reentrant. No allocation.
QXTOOLS_EXPORT const FrameLayout* LayoutOf(
    const std::shared_ptr<velkar::vision::ImageFrame>& frame);

// The deepest reordering that H.264 knows is 16 pictures; one of them is the current one.
constexpr int kMaxReorderDepth = 15;

// The decoder: Init(), SetCallback(), SendFrame() once per packet, then destroy.
//
// Threads: Init(), SendFrame() and the destructor are called by one thread at a time; from inside
//          the callback too, as long as no other thread is in one of them. SetCallback() may be
//          called at any time from any thread but the one that is destroying the decoder.
//          Decoders are independent of each other.
class QXTOOLS_EXPORT FfmpegDecoder : public video::Decoder {
 public:
  // Starts the worker, which waits for frames.
  // Errors: std::system_error when no thread can be started.
  FfmpegDecoder();

  // Stops and ends the worker in any state. A frame that the worker has taken already still
  // reaches the callback, and the destructor waits for that call to return; frames that wait in
  // the queue are released. From inside the callback it does not wait: the worker ends by itself
  // after the callback, without touching the decoder, and the callback's target lives until then.
  // Frames that the application keeps stay valid.
  ~FfmpegDecoder() override;

  FfmpegDecoder(const FfmpegDecoder&) = delete;
  FfmpegDecoder& operator=(const FfmpegDecoder&) = delete;

  // Opens FFmpeg's H.264 decoder, whatever codec the packets will name. A second call starts over:
  // pictures held back are lost.
  // Returns: 0; -1 when there is no decoder or it does not open ("Could not open codec" on standard
  //          output).
  int Init() override;

  // Chooses between the least delay and every picture. A stream whose parameter sets do not tell
  // how far its pictures are reordered makes FFmpeg learn the depth as it goes: at first nothing is
  // held back, and a picture that turns out to be late is dropped. For recordings, where a delay of
  // some pictures costs nothing, hold back kMaxReorderDepth.
  //
  // Inputs:  pictures  0 .. kMaxReorderDepth to hold back at least. Call it after Init(), which
  //                    starts at 0, and before the first SendFrame().
  // Returns: 0, or a negative DecodeStatus: kDecodeNotInitialised, or kDecodeFailed when `pictures`
  //          is out of range.
  int SetReorderDepth(int pictures);

  // Sets the receiver of frames; an empty one lets frames be dropped. Without a receiver frames are
  // taken from the queue and released.
  //
  // The callback runs on the worker thread, for one frame at a time, in the order of the
  // SendFrame() calls. It may keep the frame, call any operation of the decoder, and destroy it. An
  // exception that leaves it is logged at ERROR and delivery goes on with the next frame. A target
  // that is running is never destroyed: it goes when its call has returned. A target that owns the
  // decoder keeps it alive until another callback is set.
  // Returns: 0.
  int SetCallback(video::FrameCallback callback) override;

  // Decodes one packet and queues the picture that it completes, if any.
  //
  // Inputs:  packet     borrowed until the call returns. `data` is one access unit in Annex B form,
  //                     `size` its bytes; `codec` is not read. FFmpeg makes its own padded copy of
  //                     the payload, so nothing beyond `size` bytes is read and no padding is asked
  //                     for. With null data and size 0 the packet drains: each call queues one
  //                     picture that was held back for reordering until kDecodeEndOfStream says
  //                     that none is left, after a bounded number of calls. The next packet with a
  //                     payload starts a new stream, which begins at a key picture; pictures that
  //                     were not drained by then are lost.
  //          user_data  handed to the callback with the frame that this call queues. With reordered
  //                     pictures that is an earlier packet's picture.
  // Output:  one frame, shared with the callback: pixel_format is kQXPixelFormatYUV420P (limited or
  //          full range), kQXPixelFormatNV12 or kQXPixelFormatNV21, the bytes lie as LayoutOf()
  //          says, all other fields have their initial values. The frame frees its bytes when its
  //          last reference goes.
  // Returns: a DecodeStatus. Should a packet complete several pictures, all are queued with the
  //          same `user_data` and the result is kDecodeOk.
  // Errors:  std::bad_alloc when there is no memory for the frame; nothing is queued then and the
  //          picture is lost.
  // Cost:    decoding, one allocation and one copy of the picture, one copy of the payload. The
  //          queue has no limit: it grows while the callback is slower than the packets.
  //          glibc's heap gives freed pictures back to the system and faults them in again; small
  //          pictures at high rates gain from a larger M_TRIM_THRESHOLD (mallopt) in the process.
  //          While frames come less than 1 ms apart, the worker looks out for the next one without
  //          sleeping, for 1 ms at most.
  int SendFrame(std::shared_ptr<video::StreamPacket> packet, void* user_data) override;

 private:
  struct Reserved {  // not used
    std::uint64_t before = 0;
    std::int32_t value = 5;
    std::uint64_t after = 0;
  };
  struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const;
  };

  DecodeStatus QueuePicture(const AVFrame& picture, void* user_data);
  DecodeStatus QueuePictures(AVFrame& picture, void* user_data);

  // The worker co-owns what stop_, callback_ and queue_ point to: it can outlive the decoder.
  velkar::vision::ImageFrameImpl frame_;  // not used
  std::shared_ptr<std::atomic<bool>> stop_;
  Reserved reserved_;
  const AVCodec* p_avcodec_ = nullptr;
  std::unique_ptr<AVCodecContext, CodecContextDeleter> p_avcodec_ctx_;
  std::shared_ptr<CallbackSlot> callback_;
  std::shared_ptr<BlockingQueue<QueuedFrame>> queue_;
  std::shared_ptr<std::thread> thread_;
  std::shared_ptr<std::deque<QueuedFrame>> wake_up_;  // made early: destruction needs no memory
};

// Returns: a new decoder; never empty. Errors as of the constructor. Safe from any thread.
QXTOOLS_EXPORT std::shared_ptr<FfmpegDecoder> CreateFfmpegDecoder();

}  // namespace ffmpeg
}  // namespace utils
}  // namespace qx
