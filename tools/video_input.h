// The video stream of an input, packet by packet, with failures told in the user's words.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "qxtools/annexb_filter.h"
#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/reconnecting_demuxer.h"
#include "tools/stop_request.h"

namespace qx::tools {

// How a stream is read; files know neither.
struct StreamOptions {
  bool reconnect = false;       // opens it again whenever it is lost
  StopRequest* stop = nullptr;  // ends it; borrowed for the input's life
};

bool IsUrl(const std::string& name);

// Opens a file or RTSP URL and reads the packets of its first H.264 or H.265 stream in Annex B
// form.
// Errors: std::runtime_error that names the input and the reason.
class VideoInput {
 public:
  explicit VideoInput(const std::string& name, const StreamOptions& options = {});
  VideoInput(const VideoInput&) = delete;
  VideoInput& operator=(const VideoInput&) = delete;
  ~VideoInput();

  // Returns: the next packet; empty at the end of a file, when stopped, and where the rest cannot
  //          be read: see Fault().
  std::shared_ptr<utils::video::StreamPacket> Next();

  const std::string& Name() const { return name_; }
  int StreamIndex() const { return Connection().VideoStreamIndex(); }
  utils::video::StreamTimes Times() const { return Connection().GetStreamTimes(); }

  // Returns: why the rest of the input cannot be read; empty when nothing is wrong.
  const std::string& Fault() const { return fault_; }

  // Returns: packets that were too damaged to hand out so far.
  std::size_t DamagedPackets() const { return damaged_packets_; }

 private:
  const utils::video::FfmpegDemuxer& Connection() const;
  utils::video::DemuxerFault LastFault() const;
  void Open();
  void ReportChange(const utils::video::ConnectionChange& change);

  std::string name_;
  StreamOptions options_;
  utils::video::FfmpegDemuxer demuxer_;
  utils::video::AnnexBFilter filter_;
  std::unique_ptr<utils::video::ReconnectingDemuxer> camera_;  // in place of both
  utils::video::DemuxerFault last_reason_ = utils::video::DemuxerFault::kNone;
  std::string fault_;
  std::size_t damaged_packets_ = 0;
};

}  // namespace qx::tools
