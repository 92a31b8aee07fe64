// FFmpeg's scaler.
#pragma once

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// Writes `source`, scaled and converted, into the samples of `target`. Range and matrix of YUV
// formats are those of the views. Packed pixels of the same format are scaled channel by channel.
//
// libswscale's vector code reads and writes past the ends of rows. This function keeps that within
// the pictures and its own memory: nothing outside `source` is read, and up to 64 bytes past
// the last row of `target` are written (NewPicture() and FFmpeg's own frames have them).
//
// Inputs: flags  how to scale: SWS_BICUBIC, SWS_AREA, ... of libswscale
// Errors: Failure, std::bad_alloc.
// Threads: reentrant. Opening a scaler takes FFmpeg about as long as scaling a picture, therefore
//          each thread keeps the last few it used, until it ends. No lock.
void ScaleInto(const PictureView& source, const PictureView& target, int flags);

}  // namespace qx::utils::image::engine
