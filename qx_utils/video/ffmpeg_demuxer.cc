#include "qxtools/ffmpeg_demuxer.h"

#include <glog/logging.h>

#include <thread>
#include <utility>

#include "qx_utils/internal/ffmpeg_handles.h"
#include "qx_utils/internal/ffmpeg_options.h"
#include "qx_utils/internal/input_watch.h"
#include "qx_utils/internal/stream_packet.h"

namespace qx {
namespace utils {
namespace video {
namespace {

using internal::InputWatch;

constexpr int kMaxFailures = 3;  // of one ReadFrame()
constexpr std::chrono::milliseconds kPause(1);

// Opening waits for the camera many times, and each wait may be cut short by a single byte. Open()
// promises 8 s; one is left for closing what was open before.
constexpr std::chrono::seconds kRtspOpenLimit(7);

InputWatch::Clock::duration IfRtsp(const char* url, InputWatch::Clock::duration limit) {
  return internal::IsRtsp(url) ? limit : InputWatch::kNoLimit;
}

// Returns: the open input, or null with the reason logged and recorded.
internal::FfmpegPtr<AVFormatContext> OpenInput(const std::string& url, InputWatch& watch) {
  AVFormatContext* context = avformat_alloc_context();
  AVDictionary* options = internal::InputOptions(url).release();
  int code = AVERROR(ENOMEM);  // FFmpeg would make a context of its own that nothing interrupts
  if (context != nullptr) {
    context->interrupt_callback = watch.InterruptCallback();
    code = avformat_open_input(&context, url.c_str(), nullptr, &options);
  }
  av_dict_free(&options);
  if (code == 0) return internal::FfmpegPtr<AVFormatContext>(context);
  LOG(ERROR) << "Open input stream FAILED: " << url << ", ret=" << code;
  watch.SetFault(code, url.c_str());
  return nullptr;
}

// Returns: whether the library reads `codec`, and which value stands for it.
bool ToVideoCodec(AVCodecID id, VideoCodec& codec) {
  if (id != AV_CODEC_ID_H264 && id != AV_CODEC_ID_HEVC) return false;
  codec = id == AV_CODEC_ID_H264 ? kVideoCodecH264 : kVideoCodecH265;
  return true;
}

// Logs what stream `index` is. Returns: whether it is H.264 or H.265 video; `codec` is set then.
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

// Returns: the sender's wall clock at the packet's presentation time, if it has told it.
std::int64_t WallClockOf(AVPacket& packet) {
#ifdef QXTOOLS_HAS_WALL_CLOCK
  internal::SideDataSize size = 0;
  const std::uint8_t* data = av_packet_get_side_data(&packet, AV_PKT_DATA_PRFT, &size);
  if (data != nullptr && size >= sizeof(AVProducerReferenceTime)) {
    return reinterpret_cast<const AVProducerReferenceTime*>(data)->wallclock;
  }
#else
  static_cast<void>(packet);
#endif
  return kNoTime;
}

internal::PacketStamp StampFor(const AVFormatContext& input, AVPacket& packet, InputWatch& watch) {
  const AVRational unit = input.streams[packet.stream_index]->time_base;
  return {unit.num, unit.den, watch.TakeGap(), WallClockOf(packet)};
}

}  // namespace

RtspTimeLimits GetRtspTimeLimits() { return {internal::kSocketLimit, kRtspOpenLimit}; }

FfmpegDemuxer::FfmpegDemuxer() : watch_(std::make_shared<InputWatch>()) {}

FfmpegDemuxer::~FfmpegDemuxer() = default;

int FfmpegDemuxer::Open(const std::string& url, const Config& /*config*/) {
  watch_->SetGap();
  avformat_cxt_ = CreateFormatContext(url);
  return GetStreamInfo(avformat_cxt_, video_stream_index_);
}

void FfmpegDemuxer::Close() { avformat_cxt_.reset(); }

std::shared_ptr<AVFormatContext> FfmpegDemuxer::CreateFormatContext(std::string url) {
  const InputWatch::Call call(*watch_, IfRtsp(url.c_str(), kRtspOpenLimit));
  internal::FfmpegPtr<AVFormatContext> context = OpenInput(url, *watch_);
  if (!context) return nullptr;
  int code = avformat_find_stream_info(context.get(), nullptr);
  if (watch_->Cancelled()) code = AVERROR_EXIT;  // FFmpeg takes what was learned so far for success
  if (code != 0) {
    LOG(ERROR) << "Don't find stream information.";
    watch_->SetFault(code, url.c_str());
    return nullptr;
  }
  // The input's interrupt callback reads the watch, so the input keeps it alive.
  return {context.release(), [watch = watch_](AVFormatContext* input) {
            avformat_close_input(&input);
            avformat_free_context(input);
          }};
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
  InputWatch::Call call(*watch_, IfRtsp(avformat_cxt_->url, internal::kSocketLimit));
  for (int failures = 0; failures < kMaxFailures;) {
    AVPacket packet;
    internal::InitPacket(packet);
    // Packets of other streams keep FFmpeg from waiting, and so from looking at the watch.
    const int code =
        watch_->Interrupted() ? AVERROR_EXIT : av_read_frame(avformat_cxt_.get(), &packet);
    VLOG(2) << "read frame...";
    if (code != 0) {
      LOG(ERROR) << " Read frame failed. ErrCode: " << code;
      watch_->SetFault(code, avformat_cxt_->url);
      ++failures;
      std::this_thread::sleep_for(kPause);
      call.Restart();
      continue;
    }
    if (packet.stream_index == video_stream_index_) {
      if (packet.size > 0) {
        return internal::WrapPacket(packet, codec_, StampFor(*avformat_cxt_, packet, *watch_));
      }
      LOG(ERROR) << "Invalid pkt.size= " << packet.size;
      watch_->set_fault(DemuxerFault::kMalformed);
      watch_->SetGap();
      ++failures;
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

void FfmpegDemuxer::SetTimeLimit(std::chrono::milliseconds limit) {
  watch_->SetLimit(limit.count() > 0 ? limit : InputWatch::kNoLimit);
}

void FfmpegDemuxer::Cancel() { watch_->Cancel(); }

void FfmpegDemuxer::ClearCancel() { watch_->ClearCancel(); }

}  // namespace video
}  // namespace utils
}  // namespace qx
