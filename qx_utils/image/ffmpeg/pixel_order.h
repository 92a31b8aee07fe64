// The formats of packed pixels.
#pragma once

#include "qx_utils/ffmpeg_handles.h"

namespace qx::utils::image::engine {

// Where the channels are in a pixel, in bytes; alpha is -1 where there is none.
struct PixelOrder {
  int channels;
  int red;
  int green;
  int blue;
  int alpha;
};

// Returns: the order of a packed format; null for all other formats.
const PixelOrder* PixelOrderOf(AVPixelFormat format);

}  // namespace qx::utils::image::engine
