#include "qxtools/ffmpeg_video_decoder.h"

#include <glog/logging.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <string>
#include <utility>

#include "qx_utils/ffmpeg_handles.h"
#include "qx_utils/ffmpeg_video_decoder/decoded_frame.h"
#include "qx_utils/ffmpeg_video_decoder/decoder_state.h"

namespace qx::utils::ffmpeg {
namespace {

using video::StreamPacket;

// Logs a broken assumption and continues.
void PrintAssertFailed(const char* function, int line, const char* expression) {
  std::printf("####[%s:%d]assert failed:%s\n", function, line, expression);
}

bool IsDrain(const StreamPacket& packet) { return packet.data == nullptr && packet.size == 0; }

bool IsPayload(const StreamPacket& packet) {
  return packet.data != nullptr && packet.size != 0 &&
         packet.size <= static_cast<std::uint64_t>(std::numeric_limits<int>::max());
}

bool IsOpen(AVCodecContext* context) { return context != nullptr && avcodec_is_open(context) != 0; }

bool DecodesPicturesAtOnce(const AVCodecContext& context) {
  return context.active_thread_type == FF_THREAD_FRAME;
}

// Sends `packet` to FFmpeg, which copies the payload because the packet owns no buffer.
// Returns: FFmpeg's code.
int Submit(AVCodecContext* context, const AVPacket& packet) {
  const int code = avcodec_send_packet(context, &packet);
  if (code != AVERROR_EOF) return code;
  if (packet.data == nullptr) return 0;  // draining already
  avcodec_flush_buffers(context);        // a new stream after a drain
  return avcodec_send_packet(context, &packet);
}

DecodeStatus SubmitDrain(AVCodecContext* context) {
  AVPacket packet;
  internal::InitPacket(packet);
  return Submit(context, packet) < 0 ? kDecodeFailed : kDecodeOk;
}

DecodeStatus SubmitPacket(AVCodecContext* context, const std::shared_ptr<StreamPacket>& payload,
                          SentPackets& sent) {
  AVPacket packet;
  internal::InitPacket(packet);
  packet.data = payload->data;
  packet.size = static_cast<int>(payload->size);
  packet.pts = sent.Add(payload);
  const int code = Submit(context, packet);
  // FFmpeg reports an error for a packet without a slice; when it decodes pictures in parallel, it
  // does so for a packet whose turn comes later.
  const int delay = DecodesPicturesAtOnce(*context) ? context->thread_count - 1 : 0;
  if (code == AVERROR_INVALIDDATA && sent.Find(packet.pts - delay).headers_only) {
    return kDecodeNoPicture;
  }
  return code < 0 ? kDecodeFailed : kDecodeOk;
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

bool Open(AVCodecContext* context, const AVCodec* codec, const DecoderState& state) {
  context->thread_count = state.thread_count;
  context->thread_type = state.threads == kDecodePictureThreads ? FF_THREAD_FRAME : FF_THREAD_SLICE;
  return avcodec_open2(context, codec, nullptr) >= 0;
}

}  // namespace

void FfmpegDecoder::CodecContextDeleter::operator()(AVCodecContext* context) const {
  avcodec_free_context(&context);  // closes it first
}

FfmpegDecoder::FfmpegDecoder() : state_(std::make_shared<DecoderState>()) {
  const std::shared_ptr<Delivery> delivery = state_->delivery;
  stop_ = {delivery, &delivery->stop};
  callback_ = {delivery, &delivery->callback};
  queue_ = {delivery, &delivery->queue};
  thread_ = std::make_shared<std::thread>([delivery] { Deliver(delivery); });
}

FfmpegDecoder::~FfmpegDecoder() {
  *stop_ = true;
  p_avcodec_ctx_.reset();
  callback_->Exchange(nullptr);
  queue_->Replace(state_->wake_up);
  if (thread_->get_id() == std::this_thread::get_id()) {
    thread_->detach();
  } else {
    thread_->join();
  }
}

int FfmpegDecoder::SetThreads(DecodeThreads threads, int count) {
  if (threads < kDecodeOneThread || threads > kDecodePictureThreads) return kDecodeOutOfRange;
  if (count < 1 || count > kMaxDecodeThreads) return kDecodeOutOfRange;
  state_->threads = threads;
  state_->thread_count = threads == kDecodeOneThread ? 1 : count;
  return kDecodeOk;
}

int FfmpegDecoder::Init() {
  p_avcodec_ = avcodec_find_decoder(AV_CODEC_ID_H264);
  if (p_avcodec_ == nullptr) PrintAssertFailed(__func__, __LINE__, "p_avcodec_ != NULL");
  p_avcodec_ctx_.reset(avcodec_alloc_context3(p_avcodec_));
  if (p_avcodec_ctx_ == nullptr) {
    PrintAssertFailed(__func__, __LINE__, "p_avcodec_ctx_ != NULL");
    return -1;
  }
  if (!Open(p_avcodec_ctx_.get(), p_avcodec_, *state_)) {
    std::printf("Could not open codec\n");
    return -1;
  }
  return 0;
}

int FfmpegDecoder::SetReorderDepth(int pictures) {
  if (!IsOpen(p_avcodec_ctx_.get())) return kDecodeNotInitialised;
  if (pictures < 0 || pictures > kMaxReorderDepth) return kDecodeOutOfRange;
  if (DecodesPicturesAtOnce(*p_avcodec_ctx_)) {
    // FFmpeg's threads have their own contexts, made when it is opened.
    p_avcodec_ctx_.reset(avcodec_alloc_context3(p_avcodec_));
    if (p_avcodec_ctx_ == nullptr) return kDecodeOutOfMemory;
    p_avcodec_ctx_->has_b_frames = pictures;
    return Open(p_avcodec_ctx_.get(), p_avcodec_, *state_) ? kDecodeOk : kDecodeNotInitialised;
  }
  p_avcodec_ctx_->has_b_frames = pictures;
  return kDecodeOk;
}

int FfmpegDecoder::SetCallback(video::FrameCallback callback) {
  CallbackSlot::Target target;
  if (callback) target = std::make_shared<const video::FrameCallback>(std::move(callback));
  // The previous target may own the decoder: do not touch the decoder after releasing it.
  const CallbackSlot::Target previous = callback_->Exchange(std::move(target));
  return 0;
}

int FfmpegDecoder::SendFrame(std::shared_ptr<StreamPacket> packet, void* user_data) {
  if (packet == nullptr) return kDecodeNullPacket;
  if (!IsOpen(p_avcodec_ctx_.get())) return kDecodeNotInitialised;
  if (!IsDrain(*packet) && !IsPayload(*packet)) return kDecodeInvalidPacket;
  const internal::FfmpegPtr<AVFrame> picture(av_frame_alloc());
  if (picture == nullptr) {
    PrintAssertFailed(__func__, __LINE__, "ptFrame != NULL");
    return kDecodeOutOfMemory;
  }
  AVCodecContext* const context = p_avcodec_ctx_.get();
  if (IsDrain(*packet)) {
    const DecodeStatus drained = SubmitDrain(context);
    const DecodeStatus received =
        drained == kDecodeOk ? ReceivePicture(context, picture.get()) : drained;
    return received == kDecodeOk ? QueuePicture(*picture, user_data) : received;
  }
  const DecodeStatus submitted = SubmitPacket(context, packet, state_->sent);
  return submitted == kDecodeOk ? QueuePictures(*picture, user_data) : submitted;
}

// FFmpeg accepts the next packet only when all its finished pictures were taken. Its H.264 decoder
// completes at most one per packet.
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
  SentPacket packet = state_->sent.Find(picture.pts);
  packet.times.discontinuity = packet.gaps > state_->gaps;  // the packet after the gap may be lost
  QueuedFrame item{nullptr, user_data};
  std::string refusal;
  const DecodeStatus status = CopyPicture(picture, packet, state_->pool, item.frame, refusal);
  if (refusal != state_->last_refusal && !refusal.empty()) LOG(ERROR) << refusal;
  state_->last_refusal = std::move(refusal);
  if (status == kDecodeOk) {
    queue_->Push(std::move(item));
    ++state_->delivery->queued;
    state_->gaps = std::max(state_->gaps, packet.gaps);
  }
  return status;
}

int FfmpegDecoder::Drain(void* user_data) {
  // The number of pictures that FFmpeg can hold back, and as many again that it reports as damaged.
  constexpr int kMaxCalls = 2 * (kMaxReorderDepth + 1 + kMaxDecodeThreads);
  const auto drain = std::make_shared<StreamPacket>();
  int result = kDecodeOk;
  for (int calls = 0; calls < kMaxCalls; ++calls) {
    const int status = SendFrame(drain, user_data);
    if (status == kDecodeEndOfStream) break;
    if (result == kDecodeOk) result = status;
    if (status == kDecodeNotInitialised || status == kDecodeOutOfMemory) break;
  }
  return result;
}

void FfmpegDecoder::WaitUntilDelivered() {
  if (thread_->get_id() == std::this_thread::get_id()) return;
  state_->delivery->delivered.WaitFor(state_->delivery->queued);
}

std::shared_ptr<FfmpegDecoder> CreateFfmpegDecoder() { return std::make_shared<FfmpegDecoder>(); }

}  // namespace qx::utils::ffmpeg
