#include "tools/video_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tools/messages.h"

namespace qx::tools {
namespace {

using utils::video::DemuxerFault;

// What the system says about a file is clearer than what FFmpeg makes of it.
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
    options.stop->SetAction([this] { camera_ ? camera_->Cancel() : demuxer_.Cancel(); });
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
  // Without "file:", FFmpeg takes a colon in a file's name for the end of a protocol's.
  if (demuxer_.Open(IsUrl(name_) ? name_ : "file:" + name_, {}) != 0) {
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

}  // namespace qx::tools
