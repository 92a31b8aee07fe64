#include "qxtools/reconnecting_demuxer.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <random>
#include <utility>

#include "qxtools/annexb_filter.h"

namespace qx::utils::video {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

bool IsLocalFile(const std::string& url) {
  return url.find("://") == std::string::npos || url.rfind("file:", 0) == 0;
}

// The pauses between attempts, as ReconnectPolicy describes them.
class Pauses {
 public:
  explicit Pauses(const ReconnectPolicy& policy)
      : first_(std::max(policy.first_pause, milliseconds(1))),
        longest_(std::max(policy.longest_pause, first_)) {}

  void Reset() { last_ = milliseconds(0); }

  // Call when a connection ends that delivered packets for `duration`.
  void ConnectionLasted(Clock::duration duration) {
    if (duration > last_) Reset();
  }

  milliseconds Next() {
    last_ = last_.count() == 0 ? first_ : last_ + std::min(last_, longest_ - last_);
    const auto fifth = std::min<milliseconds::rep>(last_.count() / 5, 60'000);
    return last_ - milliseconds(random_() % static_cast<std::uint64_t>(fifth + 1));
  }

 private:
  const milliseconds first_, longest_;
  milliseconds last_{0};  // before it was shortened; 0: none yet
  std::minstd_rand random_{std::random_device{}()};
};

}  // namespace

class ReconnectingDemuxer::Impl {
 public:
  explicit Impl(const ReconnectPolicy& policy) : policy_(policy), pauses_(policy) {}

  void SetStateCallback(std::function<void(const ConnectionChange&)> callback) {
    callback_ = std::move(callback);
  }

  int Open(const std::string& url) {
    demuxer_.Close();
    url_ = url;
    pauses_.Reset();
    failures_ = 0;
    step_ = Step::kConnect;
    return Connect() ? 0 : -1;
  }

  std::shared_ptr<StreamPacket> ReadFrame() {
    for (;;) {
      if (Cancelled()) return Nothing(DemuxerFault::kCancelled);
      switch (step_) {
        case Step::kIdle:
          return Nothing(DemuxerFault::kNotOpen);
        case Step::kEnded:
          return Nothing(DemuxerFault::kEndOfStream);
        case Step::kPause:
          if (Pause()) step_ = Step::kConnect;
          break;
        case Step::kConnect:
          Connect();
          break;
        case Step::kRead:
          if (auto packet = Read()) return packet;
      }
    }
  }

  DemuxerFault fault() const { return fault_; }
  const FfmpegDemuxer& demuxer() const { return demuxer_; }

  void SetCancelled(bool cancelled) {
    const std::lock_guard<std::mutex> lock(mutex_);
    cancelled_ = cancelled;
    cancelled ? demuxer_.Cancel() : demuxer_.ClearCancel();
    wake_.notify_all();
  }

 private:
  enum class Step { kIdle, kConnect, kRead, kPause, kEnded };

  bool Cancelled() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return cancelled_;
  }

  std::shared_ptr<StreamPacket> Nothing(DemuxerFault fault) {
    fault_ = fault;
    return nullptr;
  }

  void Tell(ConnectionState state, DemuxerFault reason, milliseconds pause = milliseconds(0)) {
    if (callback_) callback_({state, reason, failures_, pause});
  }

  // Makes one attempt. Returns: whether the camera is open.
  bool Connect() {
    demuxer_.SetTimeLimit(milliseconds(0));
    const int result = demuxer_.Open(url_, {});
    fault_ = demuxer_.LastFault();
    if (result == 0 && filter_.Init(demuxer_) != 0) fault_ = DemuxerFault::kMalformed;
    if (fault_ == DemuxerFault::kNone) {
      step_ = Step::kRead;
      failures_ = 0;
      opened_ = last_packet_ = Clock::now();
      Tell(ConnectionState::kOpen, DemuxerFault::kNone);
      return true;
    }
    demuxer_.Close();
    if (fault_ == DemuxerFault::kCancelled) return false;  // the next call makes this attempt anew
    ++failures_;
    if (IsLocalFile(url_)) {
      step_ = Step::kIdle;
      Tell(ConnectionState::kEnded, fault_);
    } else {
      WaitAfter(fault_);
    }
    return false;
  }

  // Returns: the next packet; empty when the step has changed or after a cancel.
  std::shared_ptr<StreamPacket> Read() {
    demuxer_.SetTimeLimit(policy_.longest_silence);
    while (auto packet = demuxer_.ReadFrame()) {
      last_packet_ = Clock::now();
      packet = filter_.Filter(packet);
      if (!packet) continue;  // damaged
      fault_ = DemuxerFault::kNone;
      return packet;
    }
    const DemuxerFault fault = demuxer_.LastFault();
    if (fault == DemuxerFault::kCancelled) return nullptr;
    demuxer_.Close();
    if (IsLocalFile(url_)) {
      step_ = Step::kEnded;
      Tell(ConnectionState::kEnded, fault);
    } else {
      pauses_.ConnectionLasted(last_packet_ - opened_);
      WaitAfter(fault);
    }
    return nullptr;
  }

  void WaitAfter(DemuxerFault reason) {
    const milliseconds pause = pauses_.Next();
    step_ = Step::kPause;
    pause_end_ = Clock::now() + pause;
    Tell(ConnectionState::kWaiting, reason, pause);
  }

  // Returns: whether the pause is over; false after a cancel.
  bool Pause() {
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_until(lock, pause_end_, [this] { return cancelled_; });
  }

  const ReconnectPolicy policy_;
  std::function<void(const ConnectionChange&)> callback_;
  std::string url_;
  FfmpegDemuxer demuxer_;
  AnnexBFilter filter_;
  Step step_ = Step::kIdle;
  Pauses pauses_;
  std::uint32_t failures_ = 0;
  Clock::time_point opened_, last_packet_, pause_end_;
  DemuxerFault fault_ = DemuxerFault::kNone;

  std::mutex mutex_;
  std::condition_variable wake_;
  bool cancelled_ = false;  // guarded by mutex_
};

ReconnectingDemuxer::ReconnectingDemuxer(const ReconnectPolicy& policy)
    : impl_(std::make_unique<Impl>(policy)) {}

ReconnectingDemuxer::~ReconnectingDemuxer() = default;

void ReconnectingDemuxer::SetStateCallback(std::function<void(const ConnectionChange&)> callback) {
  impl_->SetStateCallback(std::move(callback));
}

int ReconnectingDemuxer::Open(const std::string& url, const Config& /*config*/) {
  return impl_->Open(url);
}

std::shared_ptr<StreamPacket> ReconnectingDemuxer::ReadFrame() { return impl_->ReadFrame(); }

DemuxerFault ReconnectingDemuxer::LastFault() const { return impl_->fault(); }

const FfmpegDemuxer& ReconnectingDemuxer::Connection() const { return impl_->demuxer(); }

void ReconnectingDemuxer::Cancel() { impl_->SetCancelled(true); }

void ReconnectingDemuxer::ClearCancel() { impl_->SetCancelled(false); }

}  // namespace qx::utils::video
