// JPEG files, written by libjpeg-turbo: FFmpeg's encoder takes more than twice as long, and has no
// pictures of one component.
#pragma once

#include <cstdint>
#include <vector>

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// Inputs:  picture     GRAY8, YUV420P in JPEG's coding (BT.601, full range), or packed RGB, whose
//                      alpha is dropped
//          quality     1 .. 100
//          subsampled  chroma is 4:2:0, otherwise 4:4:4; YUV420P stays what it is
// Returns: the file.
// Errors:  Failure when a side is above 65,500 pixels or memory is exhausted; std::bad_alloc.
std::vector<unsigned char> WriteJpeg(const PictureView& picture, std::uint32_t quality,
                                     bool subsampled);

}  // namespace qx::utils::image::engine
