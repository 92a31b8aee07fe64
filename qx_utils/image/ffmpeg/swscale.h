// FFmpeg's scaler: any size and format into any other.
#pragma once

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// Writes `source`, scaled and converted, into the samples of `target`. Range and matrix of YUV
// formats are those of the views.
//
// Inputs: flags  how to scale: SWS_BICUBIC, SWS_AREA, ... of libswscale
// Errors: Failure.
void ScaleInto(const PictureView& source, const PictureView& target, int flags);

}  // namespace qx::utils::image::engine
