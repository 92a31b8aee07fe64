// The scalers that a thread has used last.
#pragma once

#include "qx_utils/image/ffmpeg/picture_view.h"

struct SwsContext;

namespace qx::utils::image::engine {

// Returns: FFmpeg's scaler from pictures like `source` to pictures like `target`, whose memory it
//          does not look at. It is the calling thread's and valid until the next call.
// Errors:  Failure.
SwsContext* ScalerFor(const PictureView& source, const PictureView& target, int flags);

}  // namespace qx::utils::image::engine
