// Formats that only files have, without loss as far as the library's formats allow.
#pragma once

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// Returns: a frame with the decoded picture, in the format that ffmpeg_media_proc.h documents.
// Inputs:  picture  a palette (PAL8) is in its second plane, with alpha
// Errors:  Failure, std::bad_alloc.
FramePtr Unpack(const PictureView& picture);

}  // namespace qx::utils::image::engine
