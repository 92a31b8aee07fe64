#include "qx_utils/ffmpeg_video_decoder/delivery.h"

#include <glog/logging.h>

#include <exception>

namespace qx::utils::ffmpeg {
namespace {

// Exceptions end here: on a thread of the library nothing else can catch them.
void RunCallback(const video::FrameCallback& callback, const QueuedFrame& item) {
  try {
    callback(item.frame, item.user_data);
  } catch (const std::exception& error) {
    LOG(ERROR) << "frame callback threw, delivery goes on: " << error.what();
  } catch (...) {
    LOG(ERROR) << "frame callback threw something that is no std::exception, delivery goes on";
  }
}

void DeliverOne(Delivery& delivery) {
  const QueuedFrame item = delivery.queue.Pop();
  const CallbackSlot::Target callback = delivery.callback.Get();
  if (callback != nullptr) RunCallback(*callback, item);
}

}  // namespace

void Deliver(const std::shared_ptr<Delivery>& delivery) {
  while (!delivery->stop) {
    DeliverOne(*delivery);
    delivery->delivered.Add();
  }
}

}  // namespace qx::utils::ffmpeg
