// The engine's CvtColor.
#pragma once

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// Returns: a new frame with the picture in `format`. `picture` may also have one of the formats
//          that only files have, such as palettes and 4:4:4.
// Errors:  Failure, std::bad_alloc.
FramePtr ConvertPicture(const PictureView& picture, QXPixelFormat format);

}  // namespace qx::utils::image::engine
