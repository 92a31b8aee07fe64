// The delivery of frames: what a decoder and its worker thread co-own, and the worker's loop.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "qx_utils/ffmpeg_video_decoder/blocking_queue.h"
#include "qxtools/image_frame.h"
#include "qxtools/video.h"

namespace qx::utils::ffmpeg {

// A frame on its way to the callback. Both fields are null in the element that only wakes the
// worker.
struct QueuedFrame {
  std::shared_ptr<velkar::vision::ImageFrame> frame;
  void* user_data = nullptr;
};

// The current callback. A running call shares ownership of it, so replacing it never destroys a
// running target.
class CallbackSlot {
 public:
  using Target = std::shared_ptr<const video::FrameCallback>;

  // Returns: the callback to run, or empty when none is set.
  Target Get() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return target_;
  }

  // Returns: the previous callback, for the caller to release outside the lock: its target's
  //          destructor is the application's code and may call back into here.
  Target Exchange(Target target) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    target_.swap(target);
    return target;
  }

 private:
  mutable std::mutex mutex_;
  Target target_;
};

// Counts the frames that are finished.
//
// Threads: any thread may call any operation at any time.
class DeliveryCount {
 public:
  void Add() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    grown_.notify_all();
  }

  // Waits until Add() has been called `count` times in total.
  void WaitFor(std::uint64_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    grown_.wait(lock, [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable grown_;
  std::uint64_t count_ = 0;
};

struct Delivery {
  std::atomic<bool> stop{false};
  CallbackSlot callback;
  BlockingQueue<QueuedFrame> queue;
  std::atomic<std::uint64_t> queued{0};  // frames pushed so far
  DeliveryCount delivered;               // frames taken, passed to the callback and released
};

// Passes queued frames to the callback until `stop` is set. Touches only its argument.
void Deliver(const std::shared_ptr<Delivery>& delivery);

}  // namespace qx::utils::ffmpeg
