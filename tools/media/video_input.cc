#include "tools/media/video_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tools/console/messages.h"
#include "tools/media/ffmpeg.h"

namespace qx::tools {

namespace ffmpeg = utils::ffmpeg;
using utils::video::DemuxerFault;

namespace {

// The system's reason for a file is clearer than FFmpeg's.
void CheckReadable(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
    errno = EISDIR;
  else if (access(path.c_str(), R_OK) == 0)
    return;
  throw std::system_error(errno, std::generic_category(), "cannot open '" + path + "'");
}

struct FaultText {
  DemuxerFault fault;
  const char* url;
  const char* file;  // null: the same
};
constexpr FaultText kFaultTexts[] = {
    {DemuxerFault::kRefused, "the server refused the connection or the request", nullptr},
    {DemuxerFault::kTimedOut, "no data within the time limit", nullptr},
    {DemuxerFault::kClosedByPeer, "the server closed the connection", nullptr},
    {DemuxerFault::kNoVideoStream, "no H.264 or H.265 video in it", nullptr},
    {DemuxerFault::kEndOfStream, "the stream ended", "the file is empty or cut off"},
    {DemuxerFault::kMalformed, "not a media stream, or damaged", "not a media file, or damaged"},
    {DemuxerFault::kUnreachable, "the host's name is unknown or the host cannot be reached",
     nullptr},
    {DemuxerFault::kCancelled, "stopped before the first picture", nullptr},
    {DemuxerFault::kLost, "the connection is lost", nullptr},
    {DemuxerFault::kUnsupportedTransport, "the server does not send video over TCP", nullptr},
};

const char* Reason(DemuxerFault fault, bool is_url) {
  const auto* const found =
      std::find_if(std::begin(kFaultTexts), std::end(kFaultTexts),
                   [fault](const FaultText& text) { return text.fault == fault; });
  if (found == std::end(kFaultTexts)) return "cannot be read (--verbose shows FFmpeg's code)";
  return is_url || found->file == nullptr ? found->url : found->file;
}

}  // namespace

bool IsUrl(const std::string& name) { return name.find("://") != std::string::npos; }

VideoInput::VideoInput(const std::string& name, const StreamOptions& options)
    : name_(name), options_(options) {
  if (options.reconnect) camera_ = std::make_unique<utils::video::ReconnectingDemuxer>();
  if (options.stop != nullptr) {
    options.stop->SetAction([this] { Cancel(); });
  }
  try {
    Open();
  } catch (...) {
    if (options.stop != nullptr) options.stop->SetAction({});
    throw;
  }
}

VideoInput::~VideoInput() {
  if (options_.stop != nullptr) options_.stop->SetAction({});
}

void VideoInput::Open() {
  if (camera_) {
    camera_->SetStateCallback([this](const auto& change) { ReportChange(change); });
    camera_->Open(name_, {});
    return;
  }
  if (!IsUrl(name_)) CheckReadable(name_);
  if (demuxer_.Open(IsUrl(name_) ? name_ : FileUrl(name_), {}) != 0) {
    throw std::runtime_error("'" + name_ + "': " + Reason(LastFault(), IsUrl(name_)));
  }
  if (filter_.Init(demuxer_) != 0) {
    throw std::runtime_error("'" + name_ + "': its parameter sets are damaged");
  }
}

std::shared_ptr<utils::video::StreamPacket> VideoInput::Next() {
  if (camera_) return camera_->ReadFrame();
  for (;;) {
    const auto packet = demuxer_.ReadFrame();
    if (!packet) break;
    if (auto annexb = filter_.Filter(packet)) return annexb;
    ++damaged_packets_;
  }
  const DemuxerFault fault = LastFault();
  if (fault != DemuxerFault::kEndOfStream && fault != DemuxerFault::kCancelled) {
    fault_ = Reason(fault, IsUrl(name_));
  }
  return nullptr;
}

void VideoInput::Cancel() { camera_ ? camera_->Cancel() : demuxer_.Cancel(); }

const utils::video::FfmpegDemuxer& VideoInput::Connection() const {
  return camera_ ? camera_->Connection() : demuxer_;
}

DemuxerFault VideoInput::LastFault() const {
  return camera_ ? camera_->LastFault() : demuxer_.LastFault();
}

// Says once why the camera is lost, however many attempts follow, and once that it is back.
void VideoInput::ReportChange(const utils::video::ConnectionChange& change) {
  const DemuxerFault before = std::exchange(last_reason_, change.reason);
  if (change.reason == before || change.reason == DemuxerFault::kCancelled) return;
  const char* text =
      change.reason == DemuxerFault::kNone ? "connected again" : Reason(change.reason, true);
  PrintWarning("'" + name_ + "': " + text);
}

VideoReader::VideoReader(const std::string& name, const StreamOptions& options)
    : input_(name, options), decoder_(ffmpeg::CreateFfmpegDecoder()) {
  if (decoder_->Init() != 0 || decoder_->SetReorderDepth(ffmpeg::kMaxReorderDepth) != 0) {
    throw std::runtime_error("FFmpeg has no H.264 decoder");
  }
  decoder_->SetCallback([this](FramePtr frame, void*) {
    const std::lock_guard<std::mutex> lock(delivered_.mutex);
    delivered_.frames.push_back(std::move(frame));
    delivered_.arrived.notify_one();
  });
}

FramePtr VideoReader::Next() {
  {
    const std::lock_guard<std::mutex> lock(delivered_.mutex);
    if (!delivered_.frames.empty()) return Take();
  }
  if (!Decode()) return nullptr;
  std::unique_lock<std::mutex> lock(delivered_.mutex);
  delivered_.arrived.wait(lock, [this] { return !delivered_.frames.empty(); });
  return Take();
}

std::size_t VideoReader::ExpectedPictures() const {
  const utils::video::StreamTimes times = input_.Times();
  if (times.rate_num == 0 || times.duration_us == utils::video::kNoTime) return 0;
  const double rate = static_cast<double>(times.rate_num) / times.rate_den;
  return static_cast<std::size_t>(std::lround(rate * static_cast<double>(times.duration_us) / 1e6));
}

FramePtr VideoReader::Take() {
  auto frame = std::move(delivered_.frames.front());
  delivered_.frames.pop_front();
  const ffmpeg::FrameLayout& layout = *ffmpeg::LayoutOf(frame);
  if (layout.damaged) ++damaged_pictures_;
  if (layout.discontinuity) ++gaps_;
  return frame;
}

// Feeds the decoder until it has queued a picture. Returns: false when none is left.
bool VideoReader::Decode() {
  for (;;) {
    auto packet = draining_ ? nullptr : input_.Next();
    if (!packet) {
      draining_ = true;
      packet = std::make_shared<utils::video::StreamPacket>();
    }
    if (packet->codec != utils::video::kVideoCodecH264) {
      throw std::runtime_error("'" + input_.Name() +
                               "': its video is H.265; only H.264 can be decoded");
    }
    switch (const int status = decoder_->SendFrame(std::move(packet), nullptr)) {
      case ffmpeg::kDecodeOk:
        return true;
      case ffmpeg::kDecodeNoPicture:
        break;
      case ffmpeg::kDecodeEndOfStream:
        return false;
      case ffmpeg::kDecodeFailed:
        ++damaged_packets_;
        break;
      case ffmpeg::kDecodeUnsupportedFormat:
        throw std::runtime_error("'" + input_.Name() +
                                 "': only 8-bit 4:2:0 pictures can be decoded");
      default:
        throw std::runtime_error("'" + input_.Name() + "': decoding failed with status " +
                                 std::to_string(status));
    }
  }
}

}  // namespace qx::tools
