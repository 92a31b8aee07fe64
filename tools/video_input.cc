#include "tools/video_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace qx {
namespace tools {
namespace {

using utils::video::DemuxerFault;

bool IsUrl(const std::string& name) { return name.find("://") != std::string::npos; }

// What the system says about a file is clearer than what FFmpeg makes of it.
void CheckReadable(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
    errno = EISDIR;
  else if (access(path.c_str(), R_OK) == 0)
    return;
  throw std::system_error(errno, std::generic_category(), "cannot open '" + path + "'");
}

const char* Reason(DemuxerFault fault, bool is_url) {
  switch (fault) {
    case DemuxerFault::kRefused:
      return "the server refused the connection or the request";
    case DemuxerFault::kTimedOut:
      return "no data within the time limit";
    case DemuxerFault::kClosedByPeer:
      return "the server closed the connection";
    case DemuxerFault::kNoVideoStream:
      return "no H.264 or H.265 video in it";
    case DemuxerFault::kEndOfStream:
      return is_url ? "the stream ended" : "the file is empty or cut off";
    case DemuxerFault::kMalformed:
      return "not a media file, or damaged";
    default:
      return "cannot be read (--verbose shows FFmpeg's code)";
  }
}

}  // namespace

VideoInput::VideoInput(const std::string& name) : name_(name) {
  if (!IsUrl(name)) CheckReadable(name);
  // Without "file:", FFmpeg takes a colon in a file's name for the end of a protocol's.
  if (demuxer_.Open(IsUrl(name) ? name : "file:" + name, {}) != 0) Fail();
  if (filter_.Init(demuxer_) != 0) {
    throw std::runtime_error("'" + name_ + "': its parameter sets are damaged");
  }
}

std::shared_ptr<utils::video::StreamPacket> VideoInput::Next() {
  for (;;) {
    const auto packet = demuxer_.ReadFrame();
    if (!packet) break;
    if (auto annexb = filter_.Filter(packet)) return annexb;
    ++damaged_packets_;
  }
  const DemuxerFault fault = demuxer_.LastFault();
  if (fault == DemuxerFault::kEndOfStream) return nullptr;
  if (IsUrl(name_)) Fail();
  truncated_ = true;
  return nullptr;
}

void VideoInput::Fail() const {
  throw std::runtime_error("'" + name_ + "': " + Reason(demuxer_.LastFault(), IsUrl(name_)));
}

}  // namespace tools
}  // namespace qx
