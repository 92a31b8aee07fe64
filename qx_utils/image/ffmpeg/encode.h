// The engine's Encode.
#pragma once

#include <vector>

#include "qx_utils/image/ffmpeg/picture_view.h"
#include "qxtools/media_proc.h"

namespace qx::utils::image::engine {

// As MediaProc's, except that it throws Failure or std::bad_alloc.
std::vector<unsigned char> EncodePicture(const FramePtr& frame, ImageFileFormat format,
                                         const EncodeParams& params);

}  // namespace qx::utils::image::engine
