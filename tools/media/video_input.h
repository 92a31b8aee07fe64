// The video stream of a file or camera: its packets, and its decoded pictures. Failures are
// reported in the user's words.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "qxtools/annexb_filter.h"
#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/ffmpeg_video_decoder.h"
#include "qxtools/reconnecting_demuxer.h"
#include "tools/console/stop_request.h"
#include "tools/image.h"

namespace qx::tools {

// For streams only; files ignore both.
struct StreamOptions {
  bool reconnect = false;       // opens the stream again whenever it is lost
  StopRequest* stop = nullptr;  // ends the stream; borrowed for the input's life
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

  // Returns: the next packet; empty at the end of a file, when stopped, and when the rest cannot be
  //          read: see Fault().
  std::shared_ptr<utils::video::StreamPacket> Next();

  // Ends a Next() that waits; from then on Next() returns nothing. May be called from any thread.
  void Cancel();

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
  std::unique_ptr<utils::video::ReconnectingDemuxer> camera_;  // replaces both
  utils::video::DemuxerFault last_reason_ = utils::video::DemuxerFault::kNone;
  std::string fault_;
  std::size_t damaged_packets_ = 0;
};

// Errors: std::runtime_error that names the input and the reason, from the constructor and Next().
class VideoReader {
 public:
  explicit VideoReader(const std::string& name, const StreamOptions& options = {});

  // Returns: the next picture in output order, for which utils::ffmpeg::LayoutOf() has the layout;
  //          empty after the last, including those that the decoder had held back.
  FramePtr Next();

  // Returns: rate and length according to the container.
  utils::video::StreamTimes Times() const { return input_.Times(); }

  // Returns: how many pictures there are according to the container; 0 when unknown.
  std::size_t ExpectedPictures() const;

  // Ends a Next() that waits. May be called from any thread.
  void Cancel() { input_.Cancel(); }

  // Returns: packets that were damaged so far. Decoding continues after them.
  std::size_t DamagedPackets() const { return damaged_packets_ + input_.DamagedPackets(); }

  // Returns: pictures handed out so far in which errors were concealed.
  std::size_t DamagedPictures() const { return damaged_pictures_; }

  // Returns: gaps in the stream so far: a camera that was lost, or damaged packets.
  std::size_t Gaps() const { return gaps_; }

  // Returns: why the rest of the input cannot be read; empty when nothing is wrong.
  const std::string& Fault() const { return input_.Fault(); }

 private:
  // Shared by the decoder's thread and this one. Declared before the decoder, so that it outlives
  // the callback.
  struct Delivered {
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<FramePtr> frames;
  };

  bool Decode();
  FramePtr Take();

  VideoInput input_;
  Delivered delivered_;
  std::shared_ptr<utils::ffmpeg::FfmpegDecoder> decoder_;
  bool draining_ = false;
  std::size_t damaged_packets_ = 0;
  std::size_t damaged_pictures_ = 0;
  std::size_t gaps_ = 0;
};

}  // namespace qx::tools
