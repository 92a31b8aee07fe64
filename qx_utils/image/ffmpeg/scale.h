// The engine's Resize.
#pragma once

#include <cstddef>

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// As MediaProc's, except that it throws Failure or std::bad_alloc.
FramePtr ResizePicture(const FramePtr& frame, std::size_t width, std::size_t height);

// Returns: a new frame with the picture in another size. `format` is its format.
// Errors:  as above.
FramePtr ScaledPicture(const PictureView& picture, QXPixelFormat format, std::size_t width,
                       std::size_t height);

}  // namespace qx::utils::image::engine
