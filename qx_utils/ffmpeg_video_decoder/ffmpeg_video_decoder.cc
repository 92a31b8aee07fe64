#include "qxtools/ffmpeg_video_decoder.h"

#include <cstdio>
#include <limits>
#include <utility>

#include "qx_utils/ffmpeg_video_decoder/decoded_frame.h"
#include "qx_utils/ffmpeg_video_decoder/delivery.h"
#include "qx_utils/internal/ffmpeg_handles.h"

namespace qx {
namespace utils {
namespace ffmpeg {
namespace {

using video::StreamPacket;

// Reports a broken assumption without stopping for it.
void PrintAssertFailed(const char* function, int line, const char* expression) {
  std::printf("####[%s:%d]assert failed:%s\n", function, line, expression);
}

bool IsDrain(const StreamPacket& packet) { return packet.data == nullptr && packet.size == 0; }

bool IsPayload(const StreamPacket& packet) {
  return packet.data != nullptr && packet.size != 0 &&
         packet.size <= static_cast<std::uint64_t>(std::numeric_limits<int>::max());
}

bool IsOpen(AVCodecContext* context) { return context != nullptr && avcodec_is_open(context) != 0; }

// Gives the packet to FFmpeg, which copies the payload because the packet owns no buffer.
DecodeStatus Submit(AVCodecContext* context, const StreamPacket& stream_packet) {
  AVPacket packet;
  internal::InitPacket(packet);
  packet.data = stream_packet.data;
  packet.size = static_cast<int>(stream_packet.size);
  int result = avcodec_send_packet(context, &packet);
  if (result == AVERROR_EOF) {
    if (IsDrain(stream_packet)) return kDecodeOk;  // draining already
    avcodec_flush_buffers(context);                // a new stream after a drain
    result = avcodec_send_packet(context, &packet);
  }
  return result < 0 ? kDecodeFailed : kDecodeOk;
}

DecodeStatus ReceivePicture(AVCodecContext* context, AVFrame* picture) {
  switch (avcodec_receive_frame(context, picture)) {
    case 0:
      return kDecodeOk;
    case AVERROR(EAGAIN):
      return kDecodeNoPicture;
    case AVERROR_EOF:
      return kDecodeEndOfStream;
    default:
      return kDecodeFailed;
  }
}

}  // namespace

void FfmpegDecoder::CodecContextDeleter::operator()(AVCodecContext* context) const {
  avcodec_free_context(&context);  // closes it first
}

FfmpegDecoder::FfmpegDecoder() : wake_up_(std::make_shared<std::deque<QueuedFrame>>(1)) {
  const auto delivery = std::make_shared<Delivery>();
  stop_ = {delivery, &delivery->stop};
  callback_ = {delivery, &delivery->callback};
  queue_ = {delivery, &delivery->queue};
  thread_ = std::make_shared<std::thread>([delivery] { Deliver(delivery); });
}

FfmpegDecoder::~FfmpegDecoder() {
  *stop_ = true;
  p_avcodec_ctx_.reset();
  callback_->Exchange(nullptr);
  queue_->Replace(*wake_up_);
  if (thread_->get_id() == std::this_thread::get_id()) {
    thread_->detach();
  } else {
    thread_->join();
  }
}

int FfmpegDecoder::Init() {
  p_avcodec_ = avcodec_find_decoder(AV_CODEC_ID_H264);
  if (p_avcodec_ == nullptr) PrintAssertFailed(__func__, __LINE__, "p_avcodec_ != NULL");
  p_avcodec_ctx_.reset(avcodec_alloc_context3(p_avcodec_));
  if (p_avcodec_ctx_ == nullptr) {
    PrintAssertFailed(__func__, __LINE__, "p_avcodec_ctx_ != NULL");
    return -1;
  }
  if (avcodec_open2(p_avcodec_ctx_.get(), p_avcodec_, nullptr) < 0) {
    std::printf("Could not open codec\n");
    return -1;
  }
  return 0;
}

int FfmpegDecoder::SetReorderDepth(int pictures) {
  if (!IsOpen(p_avcodec_ctx_.get())) return kDecodeNotInitialised;
  if (pictures < 0 || pictures > kMaxReorderDepth) return kDecodeFailed;
  p_avcodec_ctx_->has_b_frames = pictures;
  return kDecodeOk;
}

int FfmpegDecoder::SetCallback(video::FrameCallback callback) {
  CallbackSlot::Target target;
  if (callback) target = std::make_shared<const video::FrameCallback>(std::move(callback));
  // The previous target may own the decoder: nothing of it is touched once that is released.
  const CallbackSlot::Target previous = callback_->Exchange(std::move(target));
  return 0;
}

int FfmpegDecoder::SendFrame(std::shared_ptr<StreamPacket> packet, void* user_data) {
  if (packet == nullptr) return kDecodeNullPacket;
  if (!IsOpen(p_avcodec_ctx_.get())) return kDecodeNotInitialised;
  if (!IsDrain(*packet) && !IsPayload(*packet)) return kDecodeInvalidPacket;
  const internal::FfmpegPtr<AVFrame> ptFrame(av_frame_alloc());
  if (ptFrame == nullptr) {
    PrintAssertFailed(__func__, __LINE__, "ptFrame != NULL");
    return kDecodeOutOfMemory;
  }
  const DecodeStatus submitted = Submit(p_avcodec_ctx_.get(), *packet);
  if (submitted != kDecodeOk) return submitted;
  if (!IsDrain(*packet)) return QueuePictures(*ptFrame, user_data);
  const DecodeStatus received = ReceivePicture(p_avcodec_ctx_.get(), ptFrame.get());
  return received == kDecodeOk ? QueuePicture(*ptFrame, user_data) : received;
}

// FFmpeg accepts the next packet only when no picture waits in it, so all are taken. Its H.264
// decoder completes at most one per packet.
DecodeStatus FfmpegDecoder::QueuePictures(AVFrame& picture, void* user_data) {
  DecodeStatus result = kDecodeNoPicture;
  for (;;) {
    const DecodeStatus received = ReceivePicture(p_avcodec_ctx_.get(), &picture);
    if (received != kDecodeOk) return result == kDecodeNoPicture ? received : result;
    const DecodeStatus queued = QueuePicture(picture, user_data);
    if (result != kDecodeOk) result = queued;
  }
}

DecodeStatus FfmpegDecoder::QueuePicture(const AVFrame& picture, void* user_data) {
  QueuedFrame item{nullptr, user_data};
  const DecodeStatus status = CopyPicture(picture, item.frame);
  if (status == kDecodeOk) queue_->Push(std::move(item));
  return status;
}

std::shared_ptr<FfmpegDecoder> CreateFfmpegDecoder() { return std::make_shared<FfmpegDecoder>(); }

}  // namespace ffmpeg
}  // namespace utils
}  // namespace qx
