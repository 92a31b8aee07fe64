// The one place where an FFmpeg pixel format becomes one of the library's.
#pragma once

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "qxtools/image_frame.h"

namespace qx::utils::ffmpeg {

// The library's format for the three 4:2:0 layouts that the decoder passes on: planar, NV12, NV21.
// Errors: ends the process through a fatal log line for any other format.
// Threads: reentrant.
QXPixelFormat ConvertAvPixelFormat(AVPixelFormat av_format);

// Returns: the format with the same memory layout as `av_format` that ConvertAvPixelFormat()
//          accepts, perhaps with another colour range; AV_PIX_FMT_NONE if there is none.
AVPixelFormat WithoutColourRange(AVPixelFormat av_format);

}  // namespace qx::utils::ffmpeg
