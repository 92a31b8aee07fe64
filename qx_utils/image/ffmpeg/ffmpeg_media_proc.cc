#include "qxtools/ffmpeg_media_proc.h"

#include <glog/logging.h>

#include <exception>
#include <new>
#include <utility>

#include "qx_utils/image/ffmpeg/color.h"
#include "qx_utils/image/ffmpeg/crop.h"
#include "qx_utils/image/ffmpeg/decode.h"
#include "qx_utils/image/ffmpeg/encode.h"
#include "qx_utils/image/ffmpeg/scale.h"

namespace qx::utils::image {
namespace {

// Runs one operation. The only place where the engine's failures end.
// Returns: what the operation returns; empty when it throws, with the reason in the log.
template <typename Operation>
auto Result(const char* name, const Operation& operation) -> decltype(operation()) {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    LOG(ERROR) << name << ": out of memory";
  } catch (const std::exception& failure) {
    LOG(ERROR) << name << ": " << failure.what();
  }
  return {};
}

class FfmpegMediaProc : public MediaProc {
 public:
  std::vector<Frame> Crop(Frame frame, const std::vector<Box>& boxes, std::size_t width,
                          std::size_t height, bool resize) override {
    auto crops =
        Result("Crop", [&] { return engine::CropPicture(frame, boxes, width, height, resize); });
    if (!crops.refusal.empty()) LOG(ERROR) << "Crop: " << crops.refusal;
    return std::move(crops.frames);  // a copy could run out of memory
  }
  Frame Resize(Frame frame, std::size_t width, std::size_t height) override {
    return Result("Resize", [&] { return engine::ResizePicture(frame, width, height); });
  }
  Frame CvtColor(Frame frame, QXPixelFormat format) override {
    return Result("CvtColor",
                  [&] { return engine::ConvertPicture(engine::ViewOf(frame), format); });
  }
  Frame Decode(const unsigned char* data, std::size_t size) override {
    return Result("Decode", [&] { return engine::DecodePicture(data, size); });
  }
  std::vector<unsigned char> Encode(Frame frame, ImageFileFormat format,
                                    const EncodeParams& params) override {
    return Result("Encode", [&] { return engine::EncodePicture(frame, format, params); });
  }
};

}  // namespace

std::shared_ptr<MediaProc> CreateFfmpegMediaProc() { return std::make_shared<FfmpegMediaProc>(); }

void InstallFfmpegMediaProc() {
  InstallMediaProcFactory(
      [](int device) { return device == 0 ? CreateFfmpegMediaProc() : nullptr; });
}

}  // namespace qx::utils::image
