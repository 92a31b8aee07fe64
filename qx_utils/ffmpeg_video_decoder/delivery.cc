#include "qx_utils/ffmpeg_video_decoder/delivery.h"

#include <glog/logging.h>

#include <chrono>
#include <exception>

namespace qx {
namespace utils {
namespace ffmpeg {
namespace {

using Clock = std::chrono::steady_clock;

// Frames that come closer than this find the worker awake: waking a sleeping processor takes up to
// tens of microseconds, of the sender's time too.
constexpr std::chrono::milliseconds kFastInterval(1);

// An exception ends here: on a thread of the library nobody else could catch it.
void RunCallback(const video::FrameCallback& callback, const QueuedFrame& item) {
  try {
    callback(item.frame, item.user_data);
  } catch (const std::exception& error) {
    LOG(ERROR) << "frame callback threw, delivery goes on: " << error.what();
  } catch (...) {
    LOG(ERROR) << "frame callback threw something that is no std::exception, delivery goes on";
  }
}

// Returns: when the frame was taken from the queue.
Clock::time_point DeliverOne(Delivery& delivery) {
  const QueuedFrame item = delivery.queue.Pop();
  const Clock::time_point taken = Clock::now();
  const CallbackSlot::Target callback = delivery.callback.Get();
  if (callback != nullptr) RunCallback(*callback, item);
  return taken;
}

}  // namespace

void Deliver(const std::shared_ptr<Delivery>& delivery) {
  Clock::time_point last = Clock::now();
  while (!delivery->stop) {
    const Clock::time_point taken = DeliverOne(*delivery);
    if (taken - last < kFastInterval) delivery->queue.LookOut(kFastInterval);
    last = taken;
  }
}

}  // namespace ffmpeg
}  // namespace utils
}  // namespace qx
