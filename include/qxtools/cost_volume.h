// The stereo cost volume of two 8-bit feature maps, computed on the processor.
#pragma once

#include "qxtools/export.h"
#include "qxtools/image_frame.h"

namespace qx {
namespace utils {
namespace image {

QXTOOLS_EXPORT void CostVolume(velkar::vision::ImageFrame* input_l,
                               velkar::vision::ImageFrame* input_r,
                               velkar::vision::ImageFrame* output);

}  // namespace image
}  // namespace utils
}  // namespace qx
