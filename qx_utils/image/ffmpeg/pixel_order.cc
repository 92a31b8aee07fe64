#include "qx_utils/image/ffmpeg/pixel_order.h"

namespace qx::utils::image::engine {

const PixelOrder* PixelOrderOf(AVPixelFormat format) {
  static constexpr PixelOrder kRgb = {3, 0, 1, 2, -1};
  static constexpr PixelOrder kBgr = {3, 2, 1, 0, -1};
  static constexpr PixelOrder kArgb = {4, 1, 2, 3, 0};
  static constexpr PixelOrder kBgra = {4, 2, 1, 0, 3};
  static constexpr PixelOrder kRgba = {4, 0, 1, 2, 3};
  switch (format) {
    case AV_PIX_FMT_RGB24:
      return &kRgb;
    case AV_PIX_FMT_BGR24:
      return &kBgr;
    case AV_PIX_FMT_ARGB:
      return &kArgb;
    case AV_PIX_FMT_BGRA:
      return &kBgra;
    case AV_PIX_FMT_RGBA:
      return &kRgba;
    default:
      return nullptr;
  }
}

}  // namespace qx::utils::image::engine
