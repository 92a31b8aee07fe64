// The video stream of an input, packet by packet, with failures told in the user's words.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "qxtools/annexb_filter.h"
#include "qxtools/ffmpeg_demuxer.h"

namespace qx {
namespace tools {

// Opens a file or RTSP URL and reads the packets of its first H.264 or H.265 stream in Annex B
// form.
// Errors: std::runtime_error that names the input and the reason.
class VideoInput {
 public:
  explicit VideoInput(const std::string& name);

  // Returns: the next packet; empty at the end of a file. Damage that makes the rest of a file
  //          unreadable ends it too: see Truncated(). A stream that breaks off is an error.
  std::shared_ptr<utils::video::StreamPacket> Next();

  const std::string& Name() const { return name_; }
  int StreamIndex() const { return demuxer_.VideoStreamIndex(); }
  utils::video::StreamTimes Times() const { return demuxer_.GetStreamTimes(); }
  bool Truncated() const { return truncated_; }

  // Returns: packets that were too damaged to hand out so far.
  std::size_t DamagedPackets() const { return damaged_packets_; }

 private:
  [[noreturn]] void Fail() const;

  std::string name_;
  utils::video::FfmpegDemuxer demuxer_;
  utils::video::AnnexBFilter filter_;
  bool truncated_ = false;
  std::size_t damaged_packets_ = 0;
};

}  // namespace tools
}  // namespace qx
