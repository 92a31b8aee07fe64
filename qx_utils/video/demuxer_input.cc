#include "qx_utils/video/demuxer_input.h"

namespace qx::utils::internal {

DemuxerInput::DemuxerInput(const std::string& url, std::shared_ptr<InputWatch> watch)
    : url_(url), watch_(std::move(watch)), kind_(KindOf(url)) {
  InitPacket(packet_);
  if (kind_ != InputKind::kLocal) coroutine_.emplace();
}

DemuxerInput::~DemuxerInput() {
  abandoned_ = true;
  while (suspended()) coroutine_->Resume();
  abandoned_ = false;  // closing may tell the peer
  av_packet_unref(&packet_);
  avformat_close_input(&context_);
}

int DemuxerInput::Open() { return Run(Call::kOpen); }

int DemuxerInput::Probe() { return Run(Call::kProbe); }

int DemuxerInput::Read(AVPacket& packet) {
  if (const int code = watch_->InterruptionCode(); code != 0) return code;
  if (!coroutine_) return ReadPacket(context_, &packet);
  if (suspended() && call_ == Call::kProbe) {
    const int code = Probe();
    if (code != 0) return code;
  }
  const int code = Run(Call::kRead);
  if (code == 0) av_packet_move_ref(&packet, &packet_);
  // The RTSP client returns this code when a packet has begun but does not end. A wait between two
  // packets ends with another code, and the connection stays usable.
  lost_ = kind_ == InputKind::kRtsp && code == AVERROR(EIO);
  return code;
}

// Makes `call`, or resumes the suspended one.
int DemuxerInput::Run(Call call) {
  const auto execute = [](void* input) { static_cast<DemuxerInput*>(input)->Execute(); };
  if (!suspended()) call_ = call;
  if (!coroutine_) {
    Execute();
  } else if (suspended() ? !coroutine_->Resume() : !coroutine_->Start(execute, this)) {
    if (call_ == Call::kProbe) probing_cut_ = true;
    return interruption_;
  }
  return code_;
}

void DemuxerInput::Execute() {
  switch (call_) {
    case Call::kOpen:
      code_ = OpenNow();
      break;
    case Call::kProbe:
      code_ = ProbeNow();
      break;
    case Call::kRead:
      code_ = ReadPacket(context_, &packet_);
  }
}

int DemuxerInput::OpenNow() {
  context_ = avformat_alloc_context();
  if (context_ == nullptr) return AVERROR(ENOMEM);  // FFmpeg's own would ask nobody
  context_->interrupt_callback = {
      [](void* input) { return static_cast<DemuxerInput*>(input)->StopsWaiting() ? 1 : 0; }, this};
  watch_->ExpectFirstQuestion();
  AVDictionary* options = InputOptions(url_).release();
  const int code = avformat_open_input(&context_, url_.c_str(), nullptr, &options);
  av_dict_free(&options);
  return code;
}

int DemuxerInput::ProbeNow() {
  // Connections keep the callback they were opened with, so FFmpeg calls this one only where
  // probing can end without loss: between two packets.
  const AVIOInterruptCB usual = context_->interrupt_callback;
  if (kind_ == InputKind::kRtsp) {
    context_->interrupt_callback.callback = [](void* input) {
      return static_cast<DemuxerInput*>(input)->StopsProbing() ? 1 : 0;
    };
  }
  const int code = avformat_find_stream_info(context_, nullptr);
  context_->interrupt_callback = usual;
  return probing_cut_ && code == AVERROR_EXIT ? 0 : code;  // the session description told enough
}

// FFmpeg asks before each access to a connection, and every 0.1 s while it waits for one.
bool DemuxerInput::StopsWaiting() {
  if (coroutine_ && coroutine_->Inside()) {
    watch_->NoteQuestion();
    while (!abandoned_ && (interruption_ = watch_->InterruptionCode()) != 0) coroutine_->Suspend();
    return abandoned_;
  }
  return watch_->Interrupted();
}

bool DemuxerInput::StopsProbing() {
  if (watch_->Interrupted() && !watch_->Cancelled()) probing_cut_ = true;
  return probing_cut_ || watch_->Cancelled() || abandoned_;
}

}  // namespace qx::utils::internal
