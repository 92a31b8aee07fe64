// The engine's CvtColor.
#pragma once

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// Returns: a new frame with the picture in `format`. `picture` may also have one of the formats
//          that only files have, such as palettes and 4:4:4. 4:2:0 frames keep the range and matrix
//          of a 4:2:0 picture, and are BT.601 of 16 .. 235 otherwise.
// Errors:  Failure, std::bad_alloc.
FramePtr ConvertPicture(const PictureView& picture, QXPixelFormat format);

// Writes `source` into the samples of `target`, which has the same size, in the format and the
// coding of `target`. Between the library's own formats the result is defined by
// ffmpeg_media_proc.h; libswscale converts others.
// Errors:  as above.
void ConvertInto(const PictureView& source, const PictureView& target);

}  // namespace qx::utils::image::engine
