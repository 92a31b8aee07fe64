// The engine's Decode.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// As MediaProc's, except that it throws Failure or std::bad_alloc.
FramePtr DecodePicture(const std::uint8_t* data, std::size_t size);

}  // namespace qx::utils::image::engine
