// One input of a demuxer, whose FFmpeg calls can be suspended in the middle without loss.
//
// FFmpeg has one way to end a call early: its interrupt callback returns 1. Whatever the call had
// read from the connection by then is lost, be it half a packet or none, and an RTSP or TLS
// connection is unusable after that. So calls that may wait run on a separate stack, and instead of
// returning, the callback suspends FFmpeg where it is. The next call resumes it; FFmpeg does not
// notice.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "qx_utils/ffmpeg_handles.h"
#include "qx_utils/video/coroutine.h"
#include "qx_utils/video/ffmpeg_options.h"
#include "qx_utils/video/input_watch.h"

namespace qx::utils::internal {

// Threads: one at a time.
class DemuxerInput {
 public:
  DemuxerInput(const std::string& url, std::shared_ptr<InputWatch> watch);
  DemuxerInput(const DemuxerInput&) = delete;
  DemuxerInput& operator=(const DemuxerInput&) = delete;
  // Closes the input.
  ~DemuxerInput();

  // Opens the input. Returns: FFmpeg's code; AVERROR_EXIT (cancelled) or AVERROR(ETIMEDOUT) when
  // the watch has ended the wait: the input cannot be used then.
  int Open();

  // Probes the streams, or continues doing so. Returns: as Open() does; suspended() says whether
  // probing is unfinished.
  int Probe();

  // Finishes probing if necessary, then reads the next packet of any stream. Returns: as Open()
  // does, but the next call continues where this one stopped.
  int Read(AVPacket& packet);

  bool suspended() const { return coroutine_ && coroutine_->suspended(); }
  // FFmpeg has given up in the middle of an RTSP packet: the bytes that follow have no beginning.
  bool lost() const { return lost_; }
  // Stores the wall clock of the next packet. Returns: the one stored for this packet.
  std::int64_t ExchangeWallClock(std::int64_t next) { return std::exchange(wall_clock_, next); }
  // Returns: whether this is the first call, made for the first picture of the input.
  bool TakeFirstPicture() { return std::exchange(first_picture_, false); }
  InputKind kind() const { return kind_; }
  AVFormatContext* context() const { return context_; }

 private:
  enum class Call { kOpen, kProbe, kRead };

  int Run(Call call);
  void Execute();
  int OpenNow();
  int ProbeNow();
  bool StopsWaiting();
  bool StopsProbing();

  const std::string url_;
  const std::shared_ptr<InputWatch> watch_;
  const InputKind kind_;
  AVFormatContext* context_ = nullptr;
  std::optional<Coroutine> coroutine_;  // for inputs that can make FFmpeg wait
  Call call_ = Call::kOpen;
  int code_ = 0;          // of the last finished call
  int interruption_ = 0;  // why the last suspended call was suspended
  AVPacket packet_ = {};
  bool probing_cut_ = false;
  std::atomic<bool> abandoned_{false};  // some FFmpeg protocols call the callback on another thread
  bool lost_ = false;
  bool first_picture_ = true;
  std::int64_t wall_clock_ = AV_NOPTS_VALUE;
};

}  // namespace qx::utils::internal
