// Stops a recording on a signal or after a time limit, so that its file can be completed.
#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <mutex>
#include <thread>

namespace qx::tools {

// While it lives, the first SIGINT, SIGTERM or SIGHUP asks the program to stop instead of ending
// it; the second one ends it as usual. Ignored signals stay ignored.
//
// Threads: created before the threads that must not receive the signals; used by the thread that
//          created it.
class StopRequest {
 public:
  // Inputs: limit  zero: none. See StartClock().
  // Errors: std::system_error when no thread can be started.
  explicit StopRequest(std::chrono::duration<double> limit);
  StopRequest(const StopRequest&) = delete;
  StopRequest& operator=(const StopRequest&) = delete;
  ~StopRequest();

  // Sets the function that is called, once and on another thread, when the program should stop. An
  // empty function removes it and waits until a call in progress has returned.
  void SetAction(std::function<void()> action);

  // Starts the time limit.
  void StartClock();

  bool IsMade() const { return made_; }

 private:
  using Clock = std::chrono::steady_clock;

  void Watch();
  void Make();

  sigset_t signals_ = {};
  sigset_t old_mask_ = {};
  std::chrono::duration<double> limit_;
  std::atomic<Clock::time_point> end_{Clock::time_point::max()};
  std::atomic<bool> made_{false};
  std::atomic<bool> over_{false};
  std::mutex mutex_;
  std::function<void()> action_;
  std::thread watcher_;
};

}  // namespace qx::tools
