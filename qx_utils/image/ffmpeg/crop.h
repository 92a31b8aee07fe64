// The engine's Crop.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "qx_utils/image/ffmpeg/picture_view.h"
#include "qxtools/media_proc.h"

namespace qx::utils::image::engine {

struct Crops {
  std::vector<FramePtr> frames;  // one per box; null where the box has no pixel
  std::string refusal;           // a line for the log about those boxes; empty if there is none
};

// As MediaProc's, except that it throws Failure or std::bad_alloc.
Crops CropPicture(const FramePtr& frame, const std::vector<MediaProc::Box>& boxes,
                  std::size_t width, std::size_t height, bool resize);

}  // namespace qx::utils::image::engine
