// Stream packets around FFmpeg's: who made one can look into the AVPacket behind it.
#pragma once

#include <memory>

#include "qx_utils/internal/ffmpeg_handles.h"
#include "qxtools/video.h"

namespace qx {
namespace utils {
namespace internal {

// Wraps `packet`, whose reference moves into the result's deleter, or is released when an
// allocation throws: either way the caller has done with it. The payload is not copied.
std::shared_ptr<video::StreamPacket> WrapPacket(AVPacket& packet, video::VideoCodec codec);

// Returns: the AVPacket that `packet` owns; null when WrapPacket() did not make it.
const AVPacket* WrappedPacket(const std::shared_ptr<video::StreamPacket>& packet);

}  // namespace internal
}  // namespace utils
}  // namespace qx
