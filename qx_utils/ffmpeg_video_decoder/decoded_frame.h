// Turns decoded pictures into frames of the library.
#pragma once

#include <memory>
#include <string>

#include "qx_utils/ffmpeg_handles.h"
#include "qx_utils/ffmpeg_video_decoder/picture_pool.h"
#include "qx_utils/ffmpeg_video_decoder/sent_packets.h"
#include "qxtools/ffmpeg_video_decoder.h"

namespace qx::utils::ffmpeg {

// Copies an FFmpeg picture into a new frame.
//
// Inputs:  packet   the one that the picture came in
//          pool     supplies the frame's bytes and takes them back
// Output:  frame    the copy, with a layout for LayoutOf(); unchanged on failure.
//          refusal  a line for the log on failure.
// Returns: kDecodeOk, or kDecodeUnsupportedFormat, kDecodeUnsupportedLayout or
//          kDecodePictureTooLarge.
// Errors:  std::bad_alloc.
[[nodiscard]] DecodeStatus CopyPicture(const AVFrame& picture, const SentPacket& packet,
                                       const std::shared_ptr<PicturePool>& pool,
                                       std::shared_ptr<velkar::vision::ImageFrame>& frame,
                                       std::string& refusal);

// Returns: a frame for which LayoutOf() gives `layout`. Its bytes belong to its holder.
// Errors:  std::bad_alloc.
[[nodiscard]] std::shared_ptr<velkar::vision::ImageFrame> WithLayout(
    std::unique_ptr<velkar::vision::ImageFrameImpl> frame, const FrameLayout& layout);

}  // namespace qx::utils::ffmpeg
