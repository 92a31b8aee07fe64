// Decoded pictures as frames of the library.
#pragma once

#include <memory>

#include "qx_utils/internal/ffmpeg_handles.h"
#include "qxtools/ffmpeg_video_decoder.h"

namespace qx {
namespace utils {
namespace ffmpeg {

// Copies a picture of FFmpeg's into a new frame.
//
// Output:  frame  the copy, for which LayoutOf() knows the layout; unchanged on failure.
// Returns: kDecodeOk, or kDecodeUnsupportedFormat or kDecodePictureTooLarge with one ERROR line.
// Errors:  std::bad_alloc.
[[nodiscard]] DecodeStatus CopyPicture(const AVFrame& picture,
                                       std::shared_ptr<velkar::vision::ImageFrame>& frame);

}  // namespace ffmpeg
}  // namespace utils
}  // namespace qx
