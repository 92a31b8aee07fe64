// The engine's Resize and Crop.
#pragma once

#include <cstddef>
#include <vector>

#include "qx_utils/image/ffmpeg/picture_view.h"
#include "qxtools/media_proc.h"

namespace qx::utils::image::engine {

// As MediaProc's, except that they throw Failure or std::bad_alloc.
FramePtr ResizePicture(const FramePtr& frame, std::size_t width, std::size_t height);
std::vector<FramePtr> CropPicture(const FramePtr& frame, const std::vector<MediaProc::Box>& boxes,
                                  std::size_t width, std::size_t height, bool resize);

}  // namespace qx::utils::image::engine
