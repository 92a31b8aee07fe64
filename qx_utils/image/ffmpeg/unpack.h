// Formats that only files have, without loss as far as the library's formats allow.
#pragma once

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// Returns: the library's format for a decoded picture, as ffmpeg_media_proc.h documents it.
// Inputs:  picture  a palette (PAL8) is in its second plane, with alpha
QXPixelFormat UnpackedFormat(const PictureView& picture);

// Returns: a new frame with the picture in that format.
// Errors:  Failure, std::bad_alloc.
FramePtr Unpack(const PictureView& picture, QXPixelFormat format);

}  // namespace qx::utils::image::engine
