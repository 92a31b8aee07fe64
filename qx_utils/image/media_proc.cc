#include "qxtools/media_proc.h"

#include <glog/logging.h>

#include <mutex>
#include <utility>

namespace qx::utils::image {
namespace {

using Frame = MediaProc::Frame;
using Box = MediaProc::Box;

// Holds the factory by shared pointer, so that a call in progress outlives its replacement and
// neither the factory nor its destructor ever runs under the lock.
class FactorySlot {
 public:
  void Swap(std::shared_ptr<const MediaProcFactory>& factory) {
    const std::lock_guard<std::mutex> lock(mutex_);
    factory_.swap(factory);
  }
  std::shared_ptr<const MediaProcFactory> Get() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return factory_;
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const MediaProcFactory> factory_;
};

// Never destroyed: front ends may still run while the process ends, in threads that main() does not
// join and in destructors of static objects.
FactorySlot& InstalledFactory() {
  static FactorySlot& slot = *new FactorySlot;
  return slot;
}

// Runs `operation` on an engine for `device`; a value-initialised result stands for "no engine".
template <typename Operation>
auto WithMediaProc(int device, Operation operation)
    -> decltype(operation(std::declval<MediaProc&>())) {
  const std::shared_ptr<MediaProc> engine = CreateMediaProc(device);
  if (engine == nullptr) {
    LOG(ERROR) << "create MediaProc failed";
    return {};
  }
  return operation(*engine);
}

std::vector<Box> WholePicture(const velkar::vision::ImageFrame& frame) {
  return {Box(0, 0, frame.Width() - 1, frame.Height() - 1)};
}

}  // namespace

MediaProc::~MediaProc() = default;

void MediaProc::Reserved() {}

std::vector<Frame> MediaProc::Crop(Frame /*frame*/, const std::vector<Box>& /*boxes*/,
                                   std::size_t /*width*/, std::size_t /*height*/, bool /*resize*/) {
  return {};
}

Frame MediaProc::Resize(Frame /*frame*/, std::size_t /*width*/, std::size_t /*height*/) {
  return {};
}

Frame MediaProc::CvtColor(Frame /*frame*/, QXPixelFormat /*format*/) { return {}; }

Frame MediaProc::Decode(const unsigned char* /*data*/, std::size_t /*size*/) { return {}; }

std::vector<unsigned char> MediaProc::Encode(Frame /*frame*/, ImageFileFormat /*format*/,
                                             const EncodeParams& /*params*/) {
  return {};
}

void InstallMediaProcFactory(MediaProcFactory factory) {
  std::shared_ptr<const MediaProcFactory> replaced;
  if (factory) replaced = std::make_shared<const MediaProcFactory>(std::move(factory));
  InstalledFactory().Swap(replaced);
}

std::shared_ptr<MediaProc> CreateMediaProc(int device) {
  const std::shared_ptr<const MediaProcFactory> factory = InstalledFactory().Get();
  return factory == nullptr ? nullptr : (*factory)(device);
}

Frame Decode(const unsigned char* data, std::size_t size, int device) {
  return WithMediaProc(device, [&](MediaProc& engine) { return engine.Decode(data, size); });
}

Frame Resize(Frame frame, std::size_t width, std::size_t height, int device) {
  return WithMediaProc(device,
                       [&](MediaProc& engine) { return engine.Resize(frame, width, height); });
}

Frame Resize(Frame frame, std::size_t width, std::size_t height, bool via_crop, int device) {
  if (!via_crop) return Resize(std::move(frame), width, height, device);
  return WithMediaProc(device, [&](MediaProc& engine) {
    const std::vector<Frame> scaled = engine.Crop(frame, WholePicture(*frame), width, height, true);
    return scaled.empty() ? Frame() : scaled.front();
  });
}

std::vector<Frame> Crop(Frame frame, const std::vector<Box>& boxes, int device) {
  return Crop(std::move(frame), boxes, 0, 0, false, device);
}

std::vector<Frame> Crop(Frame frame, const std::vector<Box>& boxes, std::size_t width,
                        std::size_t height, bool resize, int device) {
  return WithMediaProc(
      device, [&](MediaProc& engine) { return engine.Crop(frame, boxes, width, height, resize); });
}

Frame CvtColor(Frame frame, QXPixelFormat format, int device) {
  return WithMediaProc(device, [&](MediaProc& engine) { return engine.CvtColor(frame, format); });
}

std::vector<unsigned char> Encode(Frame frame, ImageFileFormat format, const EncodeParams& params,
                                  int device) {
  return WithMediaProc(device,
                       [&](MediaProc& engine) { return engine.Encode(frame, format, params); });
}

std::vector<unsigned char> Encode(Frame frame, ImageFileFormat format, int device) {
  return Encode(std::move(frame), format, EncodeParams(), device);
}

}  // namespace qx::utils::image
