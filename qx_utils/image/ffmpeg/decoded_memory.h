// Memory into which FFmpeg decodes and that a frame then keeps, so that the picture is not copied.
#pragma once

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// For AVCodecContext::get_buffer2: pictures whose format the library shares get one block of memory
// for all planes, others what FFmpeg gives by default.
int GetDecoderBuffer(AVCodecContext* context, AVFrame* picture, int flags);

// Removes the gaps between rows and planes of a picture from GetDecoderBuffer() in place, and makes
// a frame of `format` that owns the memory. The picture is given up only then.
//
// Inputs:  view  of the picture; its format is the one that belongs to `format`
// Returns: the frame; empty when the memory is not such a block or is shared.
// Errors:  std::bad_alloc.
FramePtr Adopt(internal::FfmpegPtr<AVFrame>& picture, const PictureView& view,
               QXPixelFormat format);

}  // namespace qx::utils::image::engine
