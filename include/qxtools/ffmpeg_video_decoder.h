// H.264 packets in, frames on a callback out.
//
// Each packet is decoded at once on the caller's thread; a worker thread that the decoder owns
// hands the frames to a callback, so a slow consumer never holds up the caller.
//
//   using namespace qx::utils;
//   auto decoder = ffmpeg::CreateFfmpegDecoder();     // declared after what its callback uses
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
// The filter is not for MP4 and MKV alone: a camera may send its parameter sets in the session
// description and nowhere else, and without them no picture can be decoded.
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

// Results of FfmpegDecoder's operations. All but kDecodeOk queue nothing, and after all of them the
// decoder can be used further and destroyed. An ERROR line about a refused picture comes once, and
// again when the reason changes or a picture was queued in between.
enum DecodeStatus : int {
  kDecodeOk = 0,                   // a frame was queued for the callback
  kDecodeFailed = -1,              // FFmpeg reported an error: damaged or unsuitable payload
  kDecodeNoPicture = -2,           // the packet completed no picture: send the next one
  kDecodeNullPacket = -3,          // the packet pointer was empty
  kDecodeNotInitialised = -4,      // Init() was not called or did not return 0
  kDecodeEndOfStream = -5,         // drained: no picture is held back any more
  kDecodeUnsupportedFormat = -6,   // the picture is not 8-bit 4:2:0; an ERROR line names its format
  kDecodeInvalidPacket = -7,       // only one of data and size is empty, or size is above INT_MAX
  kDecodePictureTooLarge = -8,     // the picture does not fit 31 bits of bytes; an ERROR line
  kDecodeOutOfMemory = -9,         // FFmpeg had no memory for a picture's description
  kDecodeOutOfRange = -10,         // a reorder depth or number of threads that does not exist
  kDecodeUnsupportedLayout = -11,  // rows that do not lie forwards in memory; an ERROR line
};

// Where the samples of a decoded frame lie, and what is known of its picture. Frames keep Width(),
// Height() and Channel() at 0.
//
// The times are those of the picture's own packet, whatever the order in which pictures come out
// of the decoder; see PacketTimes in packet_times.h. For packets that no demuxer of this library
// made they are unknown.
struct FrameLayout {
  struct Plane {
    std::uint32_t offset;     // of the plane's first byte, from ImageFrame::Data()
    std::uint32_t pitch;      // bytes from one row to the next
    std::uint32_t row_bytes;  // bytes of a row that hold samples; what the others hold is undefined
    std::uint32_t rows;
  };

  std::uint32_t width;        // of the picture after cropping, in pixels
  std::uint32_t height;       // in pixels
  std::uint32_t plane_count;  // 3: Y, U, V (kQXPixelFormatYUV420P); 2: Y and interleaved chroma
  Plane planes[3];            // those from `plane_count` on are zero
  bool full_range;            // samples span 0 .. 255 instead of 16 .. 235 (chroma 16 .. 240)

  std::int64_t presentation_time;  // in units of time_base_num / time_base_den seconds; or kNoTime
  std::int32_t time_base_num;      // 0 when unknown
  std::int32_t time_base_den;      // never 0
  bool key;                        // decoding can begin at this picture
  // FFmpeg concealed errors in this picture, or its packet came damaged out of the demuxer. Later
  // pictures are predicted from it and may look as damaged without being marked, up to the next key
  // picture. Not all damage can be seen: bits that decode to other samples are not noticed, and a
  // lost packet leaves a `discontinuity` at most.
  bool damaged;
  // The first picture that is delivered from the packets after a gap; see PacketTimes.
  bool discontinuity;
  std::int64_t wall_clock_us;  // the sender's, microseconds since 1970-01-01 UTC; or kNoTime
  // How Y, U and V come from red, green and blue, as a code of ITU-T H.273: 1 is BT.709, 5 and 6
  // are BT.601, 2 is not specified.
  std::uint8_t matrix_coefficients;
};

// Returns: the layout of a frame that an FfmpegDecoder made, valid for as long as the frame; null
//          for every other frame, for copies of a frame and for an empty pointer.
// Threads: reentrant. No allocation.
QXTOOLS_EXPORT const FrameLayout* LayoutOf(
    const std::shared_ptr<velkar::vision::ImageFrame>& frame);

// The deepest reordering that H.264 knows is 16 pictures; one of them is the current one.
constexpr int kMaxReorderDepth = 15;

// How FFmpeg spreads the decoding over threads.
enum DecodeThreads : int {
  // Everything on the thread that calls SendFrame().
  kDecodeOneThread = 0,
  // The slices of a picture at once. No delay, but no gain either for streams whose pictures are
  // one slice each, which most encoders make. FFmpeg does not conceal errors then, and
  // FrameLayout::damaged misses most of the damage.
  kDecodeSliceThreads = 1,
  // As many pictures at once as there are threads: each comes out count - 1 packets later, and so
  // does kDecodeFailed for a damaged packet. What replaces damaged parts may differ between runs.
  kDecodePictureThreads = 2,
};

constexpr int kMaxDecodeThreads = 16;

// The decoder: Init(), SetCallback(), SendFrame() once per packet, Drain(), WaitUntilDelivered(),
// then destroy.
//
// Threads: SetThreads(), Init(), SetReorderDepth(), SendFrame(), Drain() and the destructor are
//          called by one thread at a time; from inside the callback too, as long as no other thread
//          is in one of them. SetCallback() and WaitUntilDelivered() may be called at any time from
//          any thread, but must have returned before another thread destroys the decoder.
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

  // Chooses the threads that decode, for the next Init(). Without a call there is one.
  //
  // Inputs:  count  threads, 1 .. kMaxDecodeThreads; not read for kDecodeOneThread. More than the
  //                 processor has gain nothing, and each holds pictures of its own.
  // Returns: 0, or kDecodeOutOfRange and nothing is changed.
  int SetThreads(DecodeThreads threads, int count);

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
  // Returns: 0, or a negative DecodeStatus: kDecodeNotInitialised, or kDecodeOutOfRange.
  int SetReorderDepth(int pictures);

  // Sets the receiver of frames; an empty one lets frames be dropped. Without a receiver frames are
  // taken from the queue and released.
  //
  // The callback runs on the worker thread, for one frame at a time, in the order of the
  // SendFrame() calls. It may keep the frame, call any operation of the decoder, and destroy it. It
  // returns or throws; ending the thread in it (pthread_exit) ends the process. An exception that
  // leaves it is logged at ERROR and delivery goes on with the next frame. A target that is running
  // is never destroyed: it goes when its call has returned. A target that owns the decoder keeps it
  // alive until another callback is set. Returns: 0.
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
  //          says, all other fields have their initial values. The frame's bytes go back to the
  //          decoder when its last reference goes, on whichever thread, and are used for a later
  //          picture.
  // Returns: a DecodeStatus. Should a packet complete several pictures, all are queued with the
  //          same `user_data` and the result is kDecodeOk. A packet without a slice (parameter
  //          sets, an access unit delimiter, filler) gives kDecodeNoPicture.
  // Errors:  std::bad_alloc when there is no memory for the frame; nothing is queued then and the
  //          picture is lost.
  // Cost:    decoding, one copy of the picture, one copy of the payload. The queue has no limit: it
  //          grows while the callback is slower than the packets.
  // Memory:  one buffer for each picture that is in use at once. Those that come back are kept for
  //          later pictures, never more than were in use together within the last 256 pictures, and
  //          are all freed with the decoder, or with their frame when that lives longer.
  int SendFrame(std::shared_ptr<video::StreamPacket> packet, void* user_data) override;

  // Queues all pictures that are held back, each with `user_data`, as SendFrame() does one by one.
  // The next packet starts a new stream.
  // Returns: 0 when each was queued, also when there was none; else the DecodeStatus of the first
  //          that was not, with all others queued.
  // Errors:  std::bad_alloc; the picture is lost, a further call queues those after it.
  int Drain(void* user_data);

  // Waits until every frame queued before the call has been handed to the callback and the callback
  // has returned or thrown; without a callback, until they were released. From inside the callback
  // it returns at once, as it would wait for itself.
  void WaitUntilDelivered();

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

  // The worker co-owns what stop_, callback_ and queue_ point to: it can outlive the decoder. New
  // members go into DecoderState, as applications may hold decoders by value.
  velkar::vision::ImageFrameImpl frame_;  // not used
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
