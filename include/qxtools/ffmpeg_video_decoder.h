// H.264 packets in, frames on a callback out.
//
// Each packet is decoded at once on the caller's thread; a worker thread of the decoder passes the
// frames to a callback, so a slow consumer never delays the caller.
//
//   using namespace qx::utils;
//   auto decoder = ffmpeg::CreateFfmpegDecoder();     // declare it after what its callback uses
//   if (decoder->Init() != 0) return false;
//   decoder->SetCallback([](std::shared_ptr<velkar::vision::ImageFrame> frame, void* user_data) {
//     const ffmpeg::FrameLayout* layout = ffmpeg::LayoutOf(frame);
//     ...                                             // may keep `frame` for as long as it likes
//   });
//   while (auto packet = demuxer.ReadFrame()) {
//     packet = filter.Filter(packet);                 // AnnexBFilter; empty for a damaged packet
//     if (packet == nullptr) continue;
//     const int status = decoder->SendFrame(packet, user_data);
//     if (status != ffmpeg::kDecodeOk && status != ffmpeg::kDecodeNoPicture) Report(status);
//   }
//   decoder->Drain(user_data);                        // the pictures that were held back
//   decoder->WaitUntilDelivered();
//
// Use the filter for cameras as well as for MP4 and MKV: a camera may send its parameter sets only
// in the session description, and without them no picture can be decoded.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "qxtools/export.h"
#include "qxtools/image_frame.h"
#include "qxtools/packet_times.h"
#include "qxtools/video.h"

struct AVCodec;
struct AVCodecContext;
struct AVFrame;

namespace qx::utils::ffmpeg {

template <typename T>
class BlockingQueue;
class CallbackSlot;
struct DecoderState;
struct QueuedFrame;

// Results of FfmpegDecoder's operations. All but kDecodeOk queue nothing; after any of them the
// decoder is still usable. An ERROR line about a refused picture is logged once, and again when the
// reason changes or a picture was queued in between.
enum DecodeStatus : int {
  kDecodeOk = 0,                   // a frame was queued for the callback
  kDecodeFailed = -1,              // FFmpeg reported an error: damaged or unsuitable payload
  kDecodeNoPicture = -2,           // the packet completed no picture: send the next one
  kDecodeNullPacket = -3,          // the packet pointer was empty
  kDecodeNotInitialised = -4,      // Init() was not called or did not return 0
  kDecodeEndOfStream = -5,         // drained: no picture is held back any more
  kDecodeUnsupportedFormat = -6,   // the picture is not 8-bit 4:2:0; an ERROR line names its format
  kDecodeInvalidPacket = -7,       // either data or size is zero but not both, or size > INT_MAX
  kDecodePictureTooLarge = -8,     // the picture does not fit 31 bits of bytes; an ERROR line
  kDecodeOutOfMemory = -9,         // FFmpeg had no memory for a picture's description
  kDecodeOutOfRange = -10,         // a reorder depth or number of threads out of range
  kDecodeUnsupportedLayout = -11,  // rows stored bottom-up in memory; an ERROR line
};

// The memory layout of a decoded frame, and what is known about its picture. The decoder's frames
// leave their own Width(), Height() and Channel() at 0.
//
// The times are those of the picture's own packet, in whatever order the decoder outputs pictures;
// see PacketTimes in packet_times.h. They are unknown for packets that do not come from a demuxer
// of this library.
struct FrameLayout {
  struct Plane {
    std::uint32_t offset;     // of the plane's first byte, from ImageFrame::Data()
    std::uint32_t pitch;      // bytes from one row to the next
    std::uint32_t row_bytes;  // bytes of a row that hold samples; the rest are undefined
    std::uint32_t rows;
  };

  std::uint32_t width;        // of the picture after cropping, in pixels
  std::uint32_t height;       // in pixels
  std::uint32_t plane_count;  // 3: Y, U, V (kQXPixelFormatYUV420P); 2: Y and interleaved chroma
  Plane planes[3];            // planes[plane_count] and later are zero
  bool full_range;            // samples span 0 .. 255 instead of 16 .. 235 (chroma 16 .. 240)

  std::int64_t presentation_time;  // in units of time_base_num / time_base_den seconds; or kNoTime
  std::int32_t time_base_num;      // 0 when unknown
  std::int32_t time_base_den;      // never 0
  bool key;                        // decoding can begin at this picture
  // FFmpeg concealed errors in this picture, or its packet was already damaged. Later pictures are
  // predicted from it and may look just as damaged without being marked, up to the next key
  // picture. Not all damage is detected: flipped bits may decode to other samples unnoticed, and a
  // lost packet is marked by a `discontinuity` at most.
  bool damaged;
  // This is the first picture delivered after a gap in the packets; see PacketTimes.
  bool discontinuity;
  std::int64_t wall_clock_us;  // the sender's, microseconds since 1970-01-01 UTC; or kNoTime
  // The matrix that relates YUV to RGB, as a code of ITU-T H.273: 1 is BT.709, 5 and 6 are BT.601,
  // 2 is unspecified.
  std::uint8_t matrix_coefficients;
};

// Returns: the layout of a frame that an FfmpegDecoder made, or of a 4:2:0 frame that the engine of
//          ffmpeg_media_proc.h made, valid as long as the frame; null for all other frames, for
//          copies of a frame and for an empty pointer.
// Threads: reentrant. No allocation.
QXTOOLS_EXPORT const FrameLayout* LayoutOf(
    const std::shared_ptr<velkar::vision::ImageFrame>& frame);

// H.264 reorders within at most 16 pictures, one of which is the current one.
constexpr int kMaxReorderDepth = 15;

// How FFmpeg divides decoding among threads.
enum DecodeThreads : int {
  // Everything on the thread that calls SendFrame().
  kDecodeOneThread = 0,
  // The slices of a picture in parallel. No delay, but also no gain for streams with one slice per
  // picture, which is what most encoders produce. FFmpeg does not conceal errors in this mode, and
  // FrameLayout::damaged misses most of the damage.
  kDecodeSliceThreads = 1,
  // As many pictures in parallel as there are threads: each is output count - 1 packets later, and
  // kDecodeFailed for a damaged packet is delayed as much. The concealment of damaged parts may
  // differ between runs.
  kDecodePictureThreads = 2,
};

constexpr int kMaxDecodeThreads = 16;

// The decoder: Init(), SetCallback(), SendFrame() once per packet, Drain(), WaitUntilDelivered(),
// then destroy.
//
// Threads: one thread at a time calls SetThreads(), Init(), SetReorderDepth(), SendFrame(), Drain()
//          or the destructor; the callback may call them too while no other thread is in one of
//          them. SetCallback() and WaitUntilDelivered() may be called at any time from any thread,
//          but must have returned before another thread destroys the decoder. Decoders are
//          independent of each other.
class QXTOOLS_EXPORT FfmpegDecoder : public video::Decoder {
 public:
  // Starts the worker, which waits for frames.
  // Errors: std::system_error when no thread can be started.
  FfmpegDecoder();

  // Stops the worker in any state. If the worker is passing a frame to the callback, the destructor
  // waits for that call to return; frames still in the queue are released. Called from inside the
  // callback it does not wait: the worker ends after the callback without touching the decoder,
  // and the callback's target lives until then. Frames that the application holds stay valid.
  ~FfmpegDecoder() override;

  FfmpegDecoder(const FfmpegDecoder&) = delete;
  FfmpegDecoder& operator=(const FfmpegDecoder&) = delete;

  // Sets the number of decoding threads for the next Init(). The default is one.
  //
  // Inputs:  count  threads, 1 .. kMaxDecodeThreads; ignored for kDecodeOneThread. More threads
  //                 than processors gain nothing, and each one holds pictures of its own.
  // Returns: 0, or kDecodeOutOfRange with no change.
  int SetThreads(DecodeThreads threads, int count);

  // Opens FFmpeg's H.264 decoder, whatever codec the packets will name. A second call starts over
  // and loses the pictures that were held back.
  // Returns: 0; -1 when there is no decoder or it cannot be opened ("Could not open codec" on
  //          standard output).
  int Init() override;

  // Trades latency for completeness. If a stream does not signal its reorder depth, FFmpeg
  // discovers it while decoding and may drop early out-of-order pictures. For recordings, where a
  // delay of some pictures does not matter, hold back kMaxReorderDepth.
  //
  // Inputs:  pictures  the least number to hold back, 0 .. kMaxReorderDepth. Call this after
  //                    Init(), which resets it to 0, and before the first SendFrame().
  // Returns: 0, or a negative DecodeStatus: kDecodeNotInitialised or kDecodeOutOfRange.
  int SetReorderDepth(int pictures);

  // Sets the receiver of frames. Without a receiver, or with an empty one, frames are taken from
  // the queue and released.
  //
  // The callback runs on the worker thread, for one frame at a time, in the order of the
  // SendFrame() calls. It may keep the frame, call any operation of the decoder, and destroy it. It
  // must return or throw; ending its thread (pthread_exit) ends the process. An exception is logged
  // at ERROR and delivery continues with the next frame. A target is never destroyed while it is
  // running, only after its call has returned. A target that owns the decoder keeps it alive until
  // another callback is set. Returns: 0.
  int SetCallback(video::FrameCallback callback) override;

  // Decodes one packet and queues the picture that it completes, if any.
  //
  // Inputs:  packet     borrowed until the call returns. `data` is one access unit in Annex B form,
  //                     `size` its bytes; `codec` is not read. FFmpeg makes its own padded copy of
  //                     the payload, so nothing past `size` bytes is read and no padding is needed.
  //                     Null data with size 0 drains: each call queues one picture that was held
  //                     back for reordering, until kDecodeEndOfStream says that none is left; the
  //                     number of calls is bounded. The next packet with a payload starts a new
  //                     stream, which begins at a key picture; pictures not drained by then are
  //                     lost.
  //          user_data  passed to the callback with the frame that this call queues. With reordered
  //                     pictures that is the picture of an earlier packet.
  // Output:  one frame, shared with the callback: pixel_format is kQXPixelFormatYUV420P (limited or
  //          full range), kQXPixelFormatNV12 or kQXPixelFormatNV21, LayoutOf() describes its bytes,
  //          and all other fields keep their initial values. The frame's bytes return to the
  //          decoder when its last reference is released, on any thread, and are reused for a later
  //          picture.
  // Returns: a DecodeStatus. If a packet completes several pictures, all are queued with the same
  //          `user_data` and the result is kDecodeOk. A packet without a slice (parameter sets, an
  //          access unit delimiter, filler) gives kDecodeNoPicture.
  // Errors:  std::bad_alloc when there is no memory for the frame; nothing is queued then and the
  //          picture is lost.
  // Cost:    decoding, one copy of the picture, one copy of the payload. The queue is unbounded: it
  //          grows while the callback is slower than the packets.
  // Memory:  one buffer for each picture in use at the same time. Returned buffers are kept for
  //          later pictures, at most as many as were in use together within the last 256 pictures,
  //          and are freed with the decoder, or with their frame if that lives longer.
  int SendFrame(std::shared_ptr<video::StreamPacket> packet, void* user_data) override;

  // Queues all pictures that are held back, each with `user_data`. The next packet starts a new
  // stream.
  // Returns: 0 if all were queued or there was none; otherwise the DecodeStatus of the first one
  //          that was not, with all others queued.
  // Errors:  std::bad_alloc; the picture is lost, and another call queues those after it.
  int Drain(void* user_data);

  // Waits until the callback has returned or thrown for every frame queued before the call; without
  // a callback, until those frames are released. From inside the callback it returns at once, as it
  // would wait for itself.
  void WaitUntilDelivered();

 private:
  struct Reserved {  // not used; kept for the binary layout of earlier releases
    std::uint64_t before = 0;
    std::int32_t value = 5;
    std::uint64_t after = 0;
  };
  struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const;
  };

  DecodeStatus QueuePicture(const AVFrame& picture, void* user_data);
  DecodeStatus QueuePictures(AVFrame& picture, void* user_data);

  // The worker co-owns what stop_, callback_ and queue_ point to: it can outlive the decoder. New
  // members go into DecoderState, as applications may hold decoders by value.
  velkar::vision::ImageFrameImpl frame_;  // not used; kept for the same reason
  std::shared_ptr<std::atomic<bool>> stop_;
  Reserved reserved_;
  const AVCodec* p_avcodec_ = nullptr;
  std::unique_ptr<AVCodecContext, CodecContextDeleter> p_avcodec_ctx_;
  std::shared_ptr<CallbackSlot> callback_;
  std::shared_ptr<BlockingQueue<QueuedFrame>> queue_;
  std::shared_ptr<std::thread> thread_;
  std::shared_ptr<DecoderState> state_;
};

// Returns: a new decoder; never empty. Errors as of the constructor. Safe from any thread.
QXTOOLS_EXPORT std::shared_ptr<FfmpegDecoder> CreateFfmpegDecoder();

}  // namespace qx::utils::ffmpeg
