#include "tools/console/stop_request.h"

#include <ctime>
#include <utility>

namespace qx::tools {
namespace {

constexpr timespec kPollInterval = {0, 50'000'000};  // 50 ms

}  // namespace

StopRequest::StopRequest(std::chrono::duration<double> limit) : limit_(limit) {
  sigemptyset(&signals_);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler != SIG_IGN) sigaddset(&signals_, signal);
  }
  // Threads that start from now on inherit this: only the watcher receives the signals.
  pthread_sigmask(SIG_BLOCK, &signals_, &old_mask_);
  watcher_ = std::thread([this] { Watch(); });
}

StopRequest::~StopRequest() {
  over_ = true;
  watcher_.join();
  pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
}

void StopRequest::SetAction(std::function<void()> action) {
  const std::lock_guard<std::mutex> lock(mutex_);
  action_ = std::move(action);
  if (made_ && action_) action_();
}

void StopRequest::StartClock() {
  if (limit_.count() <= 0) return;
  end_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(limit_);
}

void StopRequest::Make() {
  const std::lock_guard<std::mutex> lock(mutex_);
  made_ = true;
  if (action_) action_();
}

void StopRequest::Watch() {
  while (!over_ && !made_) {
    if (sigtimedwait(&signals_, nullptr, &kPollInterval) > 0 || Clock::now() >= end_.load()) Make();
  }
  pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);  // for the second signal
  while (!over_) nanosleep(&kPollInterval, nullptr);
}

}  // namespace qx::tools
