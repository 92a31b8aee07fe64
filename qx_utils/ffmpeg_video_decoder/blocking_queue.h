// The queue between producing threads and the one that consumes.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <utility>

namespace qx::utils::ffmpeg {

// An unbounded first-in first-out queue whose reader waits while it is empty.
//
// Threads: any thread may call any operation at any time.
template <typename T>
class BlockingQueue {
 public:
  // Errors: std::bad_alloc; the queue is unchanged then.
  void Push(T element) {
    bool awaited;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      elements_.push_back(std::move(element));
      size_ = elements_.size();
      awaited = waiting_ > 0;
    }
    if (awaited) not_empty_.notify_one();
  }

  // Returns: the oldest element, as soon as there is one.
  T Pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_;
    not_empty_.wait(lock, [this] { return !elements_.empty(); });
    --waiting_;
    T element = std::move(elements_.front());
    elements_.pop_front();
    size_ = elements_.size();
    return element;
  }

  // Swaps the waiting elements with `elements`, which the caller prepared earlier. Unlike Push() it
  // needs no memory, so it can always end the reader's wait.
  void Replace(std::deque<T>& elements) noexcept {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      elements_.swap(elements);
      size_ = elements_.size();
    }
    not_empty_.notify_one();
  }

  // Number of waiting elements, read without the lock.
  std::uint64_t Size() const { return size_; }

 private:
  std::deque<T> elements_;
  std::atomic<std::uint64_t> size_{0};
  unsigned waiting_ = 0;  // readers in Pop(); without one there is no thread to wake
  std::mutex mutex_;
  std::condition_variable not_empty_;
};

}  // namespace qx::utils::ffmpeg
