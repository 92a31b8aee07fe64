#include "qxtools/ffmpeg_demuxer.h"

#include <glog/logging.h>

#include <thread>
#include <utility>

#include "qx_utils/ffmpeg_handles.h"
#include "qx_utils/video/demuxer_input.h"
#include "qx_utils/video/ffmpeg_options.h"
#include "qx_utils/video/input_watch.h"
#include "qx_utils/video/stream_packet.h"

namespace qx::utils::video {
namespace {

using internal::DemuxerInput;
using internal::InputKind;
using internal::InputWatch;

constexpr int kMaxFailures = 3;  // of one ReadFrame()
constexpr std::chrono::milliseconds kPause(1);
constexpr char kLostConnection[] = "The connection broke off within a packet: open the input again";

// Opening waits for the camera many times, and a single byte may end each wait. Open() promises
// 8 s; one second is left for what the callback and the system add.
constexpr std::chrono::seconds kRtspOpenLimit(7);

// ReadFrame() promises 10 s while no packet comes. Three waits that FFmpeg ends itself take up to
// 9.6 s, as it checks its own limit every 0.1 s; this limit ends the wait for a camera that sends
// byte by byte.
constexpr std::chrono::milliseconds kRtspReadLimit(9800);

InputWatch::Clock::duration IfRtsp(InputKind kind, InputWatch::Clock::duration limit) {
  return kind == InputKind::kRtsp ? limit : InputWatch::kNoLimit;
}

// The last copy of a context's pointer closes the input.
struct InputCloser {
  std::shared_ptr<DemuxerInput> input;
  void operator()(AVFormatContext* /*context*/) { input.reset(); }
};

DemuxerInput& InputOf(const std::shared_ptr<AVFormatContext>& context) {
  return *std::get_deleter<InputCloser>(context)->input;
}

// Opens and probes `url`. If time runs out while FFmpeg probes, reading can finish the probing; a
// caller that wants the context itself waits until it is complete, or fails. Returns: the input;
// null with the reason logged and recorded.
std::shared_ptr<AVFormatContext> OpenInput(const std::string& url,
                                           const std::shared_ptr<InputWatch>& watch,
                                           bool leave_probing) {
  auto input = std::make_shared<DemuxerInput>(url, watch);
  const InputWatch::Call call(*watch, input->kind(), IfRtsp(input->kind(), kRtspOpenLimit));
  int code = input->Open();
  if (code != 0) {
    LOG(ERROR) << "Open input stream FAILED: " << url << ", ret=" << code;
    watch->SetFault(code, input->kind());
    return nullptr;
  }
  code = input->Probe();
  if (input->suspended() && leave_probing) {
    code = 0;
  } else if (input->suspended() && !watch->Cancelled()) {
    const InputWatch::Call more(*watch, input->kind(),
                                IfRtsp(input->kind(), internal::kSocketLimit));
    code = input->Probe();
  }
  if (watch->Cancelled()) code = AVERROR_EXIT;  // FFmpeg takes what was learned so far for success
  if (code != 0) {
    LOG(ERROR) << "Don't find stream information.";
    watch->SetFault(code, input->kind());
    return nullptr;
  }
  AVFormatContext* context = input->context();
  return {context, InputCloser{std::move(input)}};
}

// Returns: the library's value for `codec`; empty if it does not read that codec.
bool ToVideoCodec(AVCodecID id, VideoCodec& codec) {
  if (id != AV_CODEC_ID_H264 && id != AV_CODEC_ID_HEVC) return false;
  codec = id == AV_CODEC_ID_H264 ? kVideoCodecH264 : kVideoCodecH265;
  return true;
}

// Logs the type of stream `index`. Returns: whether it is H.264 or H.265 video; sets `codec` then.
bool ExamineStream(const AVStream& stream, unsigned index, VideoCodec& codec) {
  const AVMediaType type = stream.codecpar->codec_type;
  VLOG(2) << "index: " << index << " codec_type=" << static_cast<int>(type);
  if (type != AVMEDIA_TYPE_VIDEO) {
    LOG(ERROR) << "Error codec_type " << static_cast<int>(type);
    return false;
  }
  if (ToVideoCodec(stream.codecpar->codec_id, codec)) return true;
  LOG(ERROR) << "Error unsupported format " << static_cast<int>(stream.codecpar->codec_id);
  return false;
}

// Returns: the sender's wall clock that FFmpeg has attached to the packet.
std::int64_t AttachedWallClock(AVPacket& packet) {
#ifdef QXTOOLS_HAS_WALL_CLOCK
  internal::SideDataSize size = 0;
  const std::uint8_t* data = av_packet_get_side_data(&packet, AV_PKT_DATA_PRFT, &size);
  if (data != nullptr && static_cast<std::size_t>(size) >= sizeof(AVProducerReferenceTime)) {
    return reinterpret_cast<const AVProducerReferenceTime*>(data)->wallclock;
  }
#else
  static_cast<void>(packet);
#endif
  return kNoTime;
}

// Returns: the sender's wall clock at the packet's presentation time.
std::int64_t WallClockOf(AVPacket& packet, DemuxerInput& input) {
  if (input.kind() != InputKind::kRtsp) return kNoTime;
  // FFmpeg's parser completes a picture when the next one begins, and attaches the side data of
  // that one.
  std::int64_t time = input.ExchangeWallClock(AttachedWallClock(packet));
  const AVFormatContext& context = *input.context();
  if (context.start_time_realtime == kNoTime || packet.pts == kNoTime) return kNoTime;
  const AVRational unit = context.streams[packet.stream_index]->time_base;
  const AVRational microseconds{1, AV_TIME_BASE};
  const std::int64_t by_first_report =
      context.start_time_realtime + av_rescale_q(packet.pts, unit, microseconds);
  if (time == kNoTime) time = by_first_report;
  // FFmpeg ignores that the stream's 32-bit clock may have wrapped around since the report.
  const std::int64_t round = av_rescale_q(std::int64_t{1} << 32U, unit, microseconds);
  if (time - by_first_report > round / 2) time -= round;
  if (by_first_report - time > round / 2) time += round;
  return time > 0 ? time : kNoTime;  // senders without a clock send zero, for the year 1900
}

internal::PacketStamp StampFor(AVPacket& packet, DemuxerInput& input, InputWatch& watch) {
  if (input.TakeFirstPicture() && internal::kInventsFirstTime && input.kind() == InputKind::kRtsp) {
    packet.pts = packet.dts = AV_NOPTS_VALUE;
  }
  const AVRational unit = input.context()->streams[packet.stream_index]->time_base;
  return {unit.num, unit.den, watch.TakeGap(), WallClockOf(packet, input)};
}

// Logs and records a failed read. Returns: whether another attempt makes sense.
bool CanGoOn(int code, const DemuxerInput& input, InputWatch& watch) {
  LOG(ERROR) << " Read frame failed. ErrCode: " << code;
  watch.SetFault(code, input.kind());
  if (code == AVERROR_EXIT || watch.Interrupted()) return false;
  if (code != AVERROR_EOF && code != AVERROR(EAGAIN) && code != AVERROR(ETIMEDOUT)) watch.SetGap();
  if (input.lost()) {
    LOG(ERROR) << kLostConnection;
    return false;
  }
  std::this_thread::sleep_for(kPause);
  return true;
}

}  // namespace

RtspTimeLimits GetRtspTimeLimits() { return {internal::kSocketLimit, kRtspOpenLimit}; }

FfmpegDemuxer::FfmpegDemuxer() : watch_(std::make_shared<InputWatch>()) {}

FfmpegDemuxer::~FfmpegDemuxer() = default;

int FfmpegDemuxer::Open(const std::string& url, const Config& /*config*/) {
  watch_->SetGap();
  avformat_cxt_ = OpenInput(url, watch_, true);
  const int status = GetStreamInfo(avformat_cxt_, video_stream_index_);
  if (status != 0 && avformat_cxt_ && InputOf(avformat_cxt_).suspended()) {
    watch_->set_fault(DemuxerFault::kTimedOut);
  }
  return status;
}

void FfmpegDemuxer::Close() { avformat_cxt_.reset(); }

std::shared_ptr<AVFormatContext> FfmpegDemuxer::CreateFormatContext(std::string url) {
  return OpenInput(url, watch_, false);
}

int FfmpegDemuxer::GetStreamInfo(std::shared_ptr<AVFormatContext> ctx, int& stream_index) {
  if (!ctx) {
    LOG(ERROR) << "pFormatCtx is null!.";
    return -1;
  }
  stream_index = -1;
  for (unsigned i = 0; i < ctx->nb_streams; ++i) {
    if (!ExamineStream(*ctx->streams[i], i, codec_)) continue;
    stream_index = static_cast<int>(i);
    VLOG(2) << "found video stream index=" << stream_index
            << ", codecId=" << static_cast<int>(ctx->streams[i]->codecpar->codec_id);
    return 0;
  }
  LOG(ERROR) << "Didn't find a video stream.";
  watch_->set_fault(DemuxerFault::kNoVideoStream);
  return -1;
}

std::shared_ptr<StreamPacket> FfmpegDemuxer::ReadFrame() {
  if (!avformat_cxt_) {
    LOG(ERROR) << "avformat_cxt_ is null";
    watch_->set_fault(DemuxerFault::kNotOpen);
    return nullptr;
  }
  DemuxerInput& input = InputOf(avformat_cxt_);
  if (input.lost()) {
    LOG(ERROR) << kLostConnection;
    watch_->set_fault(DemuxerFault::kLost);
    return nullptr;
  }
  InputWatch::Call call(*watch_, input.kind(), IfRtsp(input.kind(), kRtspReadLimit));
  for (int failures = 0; failures < kMaxFailures;) {
    AVPacket packet;
    internal::InitPacket(packet);
    const int code = input.Read(packet);
    VLOG(2) << "read frame...";
    if (code != 0) {
      ++failures;
      if (!CanGoOn(code, input, *watch_)) return nullptr;
      continue;
    }
    if (packet.stream_index == video_stream_index_) {
      if (packet.size > 0) {
        watch_->set_fault(DemuxerFault::kNone);
        return internal::WrapPacket(packet, codec_, StampFor(packet, input, *watch_));
      }
      LOG(ERROR) << "Invalid pkt.size= " << packet.size;
      watch_->set_fault(DemuxerFault::kMalformed);
      watch_->SetGap();
      ++failures;
    } else if (video_stream_index_ >= 0) {
      call.Restart();  // the camera lives
    }
    av_packet_unref(&packet);
  }
  return nullptr;
}

StreamTimes FfmpegDemuxer::GetStreamTimes() const {
  StreamTimes times{0, 1, kNoTime};
  if (!avformat_cxt_ || video_stream_index_ < 0) return times;
  const AVStream& stream = *avformat_cxt_->streams[video_stream_index_];
  const AVRational rate = stream.avg_frame_rate;
  if (rate.num > 0 && rate.den > 0) times = {rate.num, rate.den, kNoTime};
  const AVRational microseconds{1, AV_TIME_BASE};
  if (stream.duration > 0) {
    times.duration_us = av_rescale_q(stream.duration, stream.time_base, microseconds);
  } else if (avformat_cxt_->duration > 0) {
    times.duration_us = avformat_cxt_->duration;
  }
  return times;
}

DemuxerFault FfmpegDemuxer::LastFault() const { return watch_->fault(); }

void FfmpegDemuxer::SetTimeLimit(std::chrono::milliseconds limit) { watch_->SetLimit(limit); }

void FfmpegDemuxer::Cancel() { watch_->Cancel(); }

void FfmpegDemuxer::ClearCancel() { watch_->ClearCancel(); }

}  // namespace qx::utils::video
