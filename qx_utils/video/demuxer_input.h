// One input of a demuxer, whose calls of FFmpeg's can be left in the middle without loss.
//
// FFmpeg itself has one way to end a call early: its interrupt callback answers 1. What the call
// had taken from the connection by then is gone, in the middle of a packet as well as between two,
// and an RTSP or TLS connection is of no use after that. So the calls that may wait run on a stack
// of their own, and instead of answering, the callback leaves FFmpeg where it stands. The next call
// goes on from there; for FFmpeg nothing has happened.
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
  // the watch has ended the wait: there is nothing to go on with then.
  int Open();

  // Probes the streams, or goes on with that. Returns: as Open() does, but suspended() tells when
  // there is more to be learned.
  int Probe();

  // Reads the next packet of any stream, after what is left of the probing. Returns: as Open()
  // does, but the next call goes on from there.
  int Read(AVPacket& packet);

  bool suspended() const { return coroutine_ && coroutine_->suspended(); }
  // FFmpeg has given up in the middle of an RTSP packet: what comes next has no beginning.
  bool lost() const { return lost_; }
  // Keeps the wall clock of the next packet. Returns: what was kept for this one.
  std::int64_t ExchangeWallClock(std::int64_t next) { return std::exchange(wall_clock_, next); }
  // Returns: whether this is the first call; it is for the first picture that is handed out.
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
  int code_ = 0;          // of the last call that ended
  int interruption_ = 0;  // why the last call that did not end was left
  AVPacket packet_ = {};
  bool probing_cut_ = false;
  std::atomic<bool> abandoned_{false};  // some of FFmpeg's protocols ask on a thread of their own
  bool lost_ = false;
  bool first_picture_ = true;
  std::int64_t wall_clock_ = AV_NOPTS_VALUE;
};

}  // namespace qx::utils::internal
