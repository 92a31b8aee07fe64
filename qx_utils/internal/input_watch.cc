#include "qx_utils/internal/input_watch.h"

#include <algorithm>

#include "qx_utils/internal/ffmpeg_options.h"

namespace qx {
namespace utils {
namespace internal {
namespace {

using video::DemuxerFault;

// `now` + `limit` without overflow.
InputWatch::Clock::time_point After(InputWatch::Clock::time_point now,
                                    InputWatch::Clock::duration limit) {
  const auto left = InputWatch::Clock::time_point::max() - now;
  return limit < left ? now + limit : InputWatch::Clock::time_point::max();
}

DemuxerFault FaultOf(int code) {
  switch (code) {
    case AVERROR(ETIMEDOUT):
      return DemuxerFault::kTimedOut;
    case AVERROR_EOF:
      return DemuxerFault::kEndOfStream;
    case AVERROR_INVALIDDATA:
      return DemuxerFault::kMalformed;
    case AVERROR(EPIPE):
    case AVERROR(ECONNRESET):
      return DemuxerFault::kClosedByPeer;
    case AVERROR(ECONNREFUSED):
    case AVERROR(EHOSTUNREACH):
    case AVERROR(ENETUNREACH):
    case AVERROR(ENOENT):
    case AVERROR(EACCES):
    case AVERROR(EISDIR):
    case AVERROR_HTTP_BAD_REQUEST:
    case AVERROR_HTTP_UNAUTHORIZED:
    case AVERROR_HTTP_FORBIDDEN:
    case AVERROR_HTTP_NOT_FOUND:
    case AVERROR_HTTP_OTHER_4XX:
    case AVERROR_HTTP_SERVER_ERROR:
      return DemuxerFault::kRefused;
    default:
      return DemuxerFault::kOther;
  }
}

}  // namespace

InputWatch::Call::Call(InputWatch& watch, Clock::duration wait_limit)
    : watch_(watch), wait_limit_(wait_limit), end_(Clock::time_point::max()) {
  watch_.fault_ = DemuxerFault::kNone;
  if (watch_.limit_ != kNoLimit) end_ = After(Clock::now(), watch_.limit_);
  Restart();
}

InputWatch::Call::~Call() { watch_.deadline_.store(kNoLimit.count(), std::memory_order_relaxed); }

void InputWatch::Call::Restart() {
  auto deadline = end_;
  if (wait_limit_ != kNoLimit) {
    watch_.wait_began_ = Clock::now();
    deadline = std::min(deadline, After(watch_.wait_began_, wait_limit_));
  }
  watch_.deadline_.store(deadline.time_since_epoch().count(), std::memory_order_relaxed);
}

void InputWatch::SetFault(int code, const char* url) {
  fault_ = FaultOf(code);
  // FFmpeg's RTSP client reports silence and a closed connection by the same codes, those of
  // damaged data and of the end of a file among them. The time that went by tells them apart.
  if (IsRtsp(url) && fault_ != DemuxerFault::kRefused) {
    const bool silent = Clock::now() - wait_began_ >= kSocketLimit;
    fault_ = silent ? DemuxerFault::kTimedOut : DemuxerFault::kClosedByPeer;
  }
  if (Late()) fault_ = DemuxerFault::kTimedOut;
  if (Cancelled()) fault_ = DemuxerFault::kCancelled;
}

AVIOInterruptCB InputWatch::InterruptCallback() {
  return {[](void* watch) { return static_cast<InputWatch*>(watch)->Interrupted() ? 1 : 0; }, this};
}

bool InputWatch::Late() const {
  const Clock::rep deadline = deadline_.load(std::memory_order_relaxed);
  return deadline != kNoLimit.count() && Clock::now().time_since_epoch().count() >= deadline;
}

}  // namespace internal
}  // namespace utils
}  // namespace qx
