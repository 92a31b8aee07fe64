#include "qx_utils/video/input_watch.h"

#include <algorithm>

namespace qx::utils::internal {
namespace {

using video::DemuxerFault;

// FFmpeg asks again after this time if nothing has arrived.
constexpr std::chrono::milliseconds kPoll(100);

// `limit` from now on, without overflow.
InputWatch::Clock::time_point EndOf(InputWatch::Clock::duration limit) {
  constexpr auto kNever = InputWatch::Clock::time_point::max();
  if (limit == InputWatch::kNoLimit) return kNever;
  const auto now = InputWatch::Clock::now();
  return limit < kNever - now ? now + limit : kNever;
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
    case AVERROR(EHOSTUNREACH):
    case AVERROR(ENETUNREACH):
      return DemuxerFault::kUnreachable;
    case AVERROR(ECONNREFUSED):
    case AVERROR(ENOENT):
    case AVERROR(ENOTDIR):
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

InputWatch::Call::Call(InputWatch& watch, InputKind kind, Clock::duration wait_limit)
    : watch_(watch), wait_limit_(wait_limit), end_(EndOf(watch.limit_)) {
  watch_.fault_ = DemuxerFault::kNone;
  // What passed between two calls is not the peer's.
  if (kind != InputKind::kLocal) watch_.last_question_ = Clock::now();
  watch_.longest_silence_ = watch_.silence_;
  Restart();
}

InputWatch::Call::~Call() {
  watch_.deadline_.store(Clock::time_point::max(), std::memory_order_relaxed);
}

void InputWatch::Call::Restart() {
  const auto deadline = std::min(end_, EndOf(wait_limit_));
  watch_.deadline_.store(deadline, std::memory_order_relaxed);
}

void InputWatch::SetLimit(std::chrono::milliseconds limit) {
  const bool none =
      limit.count() <= 0 || limit >= std::chrono::floor<std::chrono::milliseconds>(kNoLimit);
  limit_ = none ? kNoLimit : limit;
}

void InputWatch::SetFault(int code, InputKind kind) {
  fault_ = kind == InputKind::kLocal ? FaultOf(code) : NetworkFault(code, kind);
  if (Late()) fault_ = DemuxerFault::kTimedOut;
  if (Cancelled() || code == AVERROR_EXIT) fault_ = DemuxerFault::kCancelled;
}

void InputWatch::NoteQuestion() {
  const auto now = Clock::now();
  const auto waited = now - last_question_;
  silence_ = asked_ && waited >= kPoll ? silence_ + waited : Clock::duration::zero();
  longest_silence_ = std::max(longest_silence_, silence_);
  last_question_ = now;
  asked_ = true;
}

bool InputWatch::Late() const {
  const auto deadline = deadline_.load(std::memory_order_relaxed);
  return deadline != Clock::time_point::max() && Clock::now() >= deadline;
}

DemuxerFault InputWatch::NetworkFault(int code, InputKind kind) const {
  // An unknown host name and an invalid port fail before the first wait.
  if (!asked_ && (code == AVERROR(EIO) || code == AVERROR(EINVAL))) {
    return DemuxerFault::kUnreachable;
  }
  if (kind != InputKind::kRtsp) return FaultOf(code);
  if (code == AVERROR(EPROTONOSUPPORT)) return DemuxerFault::kUnsupportedTransport;  // status 461
  // FFmpeg's RTSP client reports silence and a closed connection by the same codes, including those
  // of damaged data and of the end of a file. The time without a byte distinguishes them.
  for (const int mixed : {AVERROR_EOF, AVERROR_INVALIDDATA, AVERROR(EIO), AVERROR(EPERM)}) {
    if (code != mixed) continue;
    // The last waits do not show here, and FFmpeg may have sent a goodbye after the silence.
    const bool silent = longest_silence_ >= kSocketLimit - 2 * kPoll;
    return silent ? DemuxerFault::kTimedOut : DemuxerFault::kClosedByPeer;
  }
  return FaultOf(code);
}

}  // namespace qx::utils::internal
