// Decides when FFmpeg must stop waiting, because a deadline has passed or another thread cancels,
// and remembers why the last call failed.
#pragma once

#include <atomic>
#include <chrono>
#include <utility>

#include "qx_utils/ffmpeg_handles.h"
#include "qx_utils/video/ffmpeg_options.h"
#include "qxtools/ffmpeg_demuxer.h"

namespace qx::utils::internal {

// Threads: any thread may call Cancel(), ClearCancel(), Cancelled() and Interrupted(); only the
//          thread that uses the demuxer calls the rest.
class InputWatch {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr Clock::duration kNoLimit = Clock::duration::max();

  // One call of the demuxer: while it is alive, FFmpeg's waits end at its deadline.
  class Call {
   public:
    // `wait_limit` bounds the time until the next Restart(), SetLimit() the whole call. Of a local
    // input nothing asks the clock unless there is a limit: files give a packet in 2 us.
    Call(InputWatch& watch, InputKind kind, Clock::duration wait_limit);
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    // Removes the deadline, so that closing the input can still notify the peer.
    ~Call();

    // Grants another `wait_limit`.
    void Restart();

   private:
    InputWatch& watch_;
    const Clock::duration wait_limit_;
    Clock::time_point end_;  // of the call as a whole
  };

  // Zero, negative values and values out of the clock's range mean no limit.
  void SetLimit(std::chrono::milliseconds limit);
  void Cancel() { cancelled_.store(true, std::memory_order_relaxed); }
  void ClearCancel() { cancelled_.store(false, std::memory_order_relaxed); }

  video::DemuxerFault fault() const { return fault_; }
  void set_fault(video::DemuxerFault fault) { fault_ = fault; }
  // Records the cause of a failure that FFmpeg reports as `code` on an input of this kind.
  void SetFault(int code, InputKind kind);

  // Notes that packets are missing before the next one, unless it is the very first.
  void SetGap() { gap_ = gave_packets_; }
  // Returns: whether packets are missing before the one being returned now.
  bool TakeGap() {
    gave_packets_ = true;
    return std::exchange(gap_, false);
  }

  bool Cancelled() const { return cancelled_.load(std::memory_order_relaxed); }
  bool Interrupted() const { return InterruptionCode() != 0; }
  // Returns: FFmpeg's code for the reason to stop waiting, a cancel or a deadline; 0 if there is
  // none. A cancel may be withdrawn at any time: ask once and keep the answer.
  int InterruptionCode() const {
    if (Cancelled()) return AVERROR_EXIT;
    return Late() ? AVERROR(ETIMEDOUT) : 0;
  }

  // Call before connecting.
  void ExpectFirstQuestion() { asked_ = false; }
  // Call when FFmpeg asks whether to continue waiting.
  void NoteQuestion();

 private:
  bool Late() const;
  video::DemuxerFault NetworkFault(int code, InputKind kind) const;

  // Neither guards other data, and both are read for every packet: relaxed accesses suffice.
  std::atomic<bool> cancelled_{false};
  std::atomic<Clock::time_point> deadline_{Clock::time_point::max()};
  Clock::duration limit_ = kNoLimit;
  bool asked_ = false;
  Clock::time_point last_question_;
  Clock::duration silence_ = Clock::duration::zero();          // since something arrived
  Clock::duration longest_silence_ = Clock::duration::zero();  // of this call
  bool gave_packets_ = false;
  bool gap_ = false;
  video::DemuxerFault fault_ = video::DemuxerFault::kNone;
};

}  // namespace qx::utils::internal
