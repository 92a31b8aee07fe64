#include "tools/video_reader.h"

#include <stdexcept>
#include <utility>

namespace qx::tools {

namespace ffmpeg = utils::ffmpeg;
using velkar::vision::ImageFrame;

VideoReader::VideoReader(const std::string& name, const StreamOptions& options)
    : input_(name, options), decoder_(ffmpeg::CreateFfmpegDecoder()) {
  if (decoder_->Init() != 0 || decoder_->SetReorderDepth(ffmpeg::kMaxReorderDepth) != 0) {
    throw std::runtime_error("FFmpeg has no H.264 decoder");
  }
  decoder_->SetCallback([this](std::shared_ptr<ImageFrame> frame, void*) {
    const std::lock_guard<std::mutex> lock(delivered_.mutex);
    delivered_.frames.push_back(std::move(frame));
    delivered_.arrived.notify_one();
  });
}

std::shared_ptr<ImageFrame> VideoReader::Next() {
  {
    const std::lock_guard<std::mutex> lock(delivered_.mutex);
    if (!delivered_.frames.empty()) return Take();
  }
  if (!Decode()) return nullptr;
  std::unique_lock<std::mutex> lock(delivered_.mutex);
  delivered_.arrived.wait(lock, [this] { return !delivered_.frames.empty(); });
  return Take();
}

std::shared_ptr<ImageFrame> VideoReader::Take() {
  auto frame = std::move(delivered_.frames.front());
  delivered_.frames.pop_front();
  const ffmpeg::FrameLayout& layout = *ffmpeg::LayoutOf(frame);
  if (layout.damaged) ++damaged_pictures_;
  if (layout.discontinuity) ++gaps_;
  return frame;
}

// Feeds the decoder until it has queued a picture. Returns: false when none is left.
bool VideoReader::Decode() {
  for (;;) {
    auto packet = draining_ ? nullptr : input_.Next();
    if (!packet) {
      draining_ = true;
      packet = std::make_shared<utils::video::StreamPacket>();
    }
    if (packet->codec != utils::video::kVideoCodecH264) {
      throw std::runtime_error("'" + input_.Name() +
                               "': its video is H.265; only H.264 can be decoded");
    }
    switch (const int status = decoder_->SendFrame(std::move(packet), nullptr)) {
      case ffmpeg::kDecodeOk:
        return true;
      case ffmpeg::kDecodeNoPicture:
        break;
      case ffmpeg::kDecodeEndOfStream:
        return false;
      case ffmpeg::kDecodeFailed:
        ++damaged_packets_;
        break;
      case ffmpeg::kDecodeUnsupportedFormat:
        throw std::runtime_error("'" + input_.Name() +
                                 "': only 8-bit 4:2:0 pictures can be decoded");
      default:
        throw std::runtime_error("'" + input_.Name() + "': decoding failed with status " +
                                 std::to_string(status));
    }
  }
}

}  // namespace qx::tools
