// Stages that run on threads of their own, and what they hand on.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace qx::tools {

// Hands items from one thread to the next one.
template <typename T>
class Channel {
 public:
  // Waits while the channel is full. Returns: false when it is closed; the item is then dropped.
  bool Push(T item) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || items_.size() < kAhead; });
    if (closed_) return false;
    items_.push_back(std::move(item));
    changed_.notify_all();
    return true;
  }

  // Waits while the channel is empty. Returns: nothing when it is closed, too.
  std::optional<T> Pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || !items_.empty(); });
    if (items_.empty()) return std::nullopt;
    std::optional<T> item(std::move(items_.front()));
    items_.pop_front();
    changed_.notify_all();
    return item;
  }

  // Called by either side: no item will follow, or none is wanted.
  void Close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    changed_.notify_all();
  }

 private:
  static constexpr std::size_t kAhead = 2;  // items that wait at most

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<T> items_;
  bool closed_ = false;
};

// Runs a stage on a thread of its own and then closes its channels. Keeps what it throws.
template <typename Stage, typename... Channels>
std::thread Start(std::exception_ptr& failure, Stage stage, Channels&... channels) {
  return std::thread([&failure, stage, &channels...] {
    try {
      stage();
    } catch (...) {
      failure = std::current_exception();
    }
    (channels.Close(), ...);
  });
}

}  // namespace qx::tools
