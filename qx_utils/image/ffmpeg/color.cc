#include "qx_utils/image/ffmpeg/color.h"

#include "qx_utils/image/ffmpeg/swscale.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace qx::utils::image::engine {

FramePtr ConvertPicture(const PictureView& picture, QXPixelFormat format) {
  FramePtr result = NewPicture(format, static_cast<std::size_t>(picture.width),
                               static_cast<std::size_t>(picture.height), picture.coding);
  const PictureView target = ViewOf(result);
  if (picture.format == target.format) {
    CopySamples(picture, target);
  } else {
    ScaleInto(picture, target, SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT);
  }
  return result;
}

}  // namespace qx::utils::image::engine
