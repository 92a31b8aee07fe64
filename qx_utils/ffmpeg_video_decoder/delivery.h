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
// worker up.
struct QueuedFrame {
  std::shared_ptr<velkar::vision::ImageFrame> frame;
  void* user_data = nullptr;
};

// The callback in force. Whoever runs it shares it, so replacing it never destroys a running
// target.
class CallbackSlot {
 public:
  using Target = std::shared_ptr<const video::FrameCallback>;

  // Returns: the callback to run, or empty when none is set.
  Target Get() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return target_;
  }

  // Returns: the previous callback, for the caller to release outside the lock: its target's
  //          destructor is the application's code and may come back here.
  Target Exchange(Target target) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    target_.swap(target);
    return target;
  }

 private:
  mutable std::mutex mutex_;
  Target target_;
};

// Counts frames that are done with.
//
// Threads: any thread may call any operation at any time.
class DeliveryCount {
 public:
  void Add() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    grown_.notify_all();
  }

  // Returns when Add() was called `count` times in all.
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
  DeliveryCount delivered;               // frames taken, handed to the callback and released
};

// Hands queued frames to the callback until `stop` is set. Touches nothing but its argument.
void Deliver(const std::shared_ptr<Delivery>& delivery);

}  // namespace qx::utils::ffmpeg
