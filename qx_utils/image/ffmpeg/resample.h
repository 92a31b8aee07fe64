// Scaling along one axis with the exact filters, for the sizes that libswscale gets wrong.
#pragma once

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// The filters' definition, for output i of `target` from `source` inputs:
//   target < source   the mean of the inputs under [i, i + 1) * source / target, parts of inputs
//                     weighted by their length;
//   otherwise         the cubic convolution kernel with parameter -0.6, the one of libswscale,
//                     around (i + 0.5) * source / target - 0.5; past the ends the last input is
//                     repeated.
// Results are rounded to nearest, and clipped to the values of the format. Each plane is a picture
// of its own.

// Writes `source`, scaled to the width of `target`, which has its height and format.
void ResampleColumns(const PictureView& source, const PictureView& target);

// Writes `source`, scaled to the height of `target`, which has its width and format.
void ResampleRows(const PictureView& source, const PictureView& target);

}  // namespace qx::utils::image::engine
