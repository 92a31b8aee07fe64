#include "qx_utils/ffmpeg_video_decoder/pixel_format.h"

#include <glog/logging.h>

#include <map>

namespace qx {
namespace utils {
namespace ffmpeg {

QXPixelFormat ConvertAvPixelFormat(AVPixelFormat av_format) {
  static const std::map<AVPixelFormat, QXPixelFormat> av2qx_map = {
      {AV_PIX_FMT_NV12, kQXPixelFormatNV12},
      {AV_PIX_FMT_NV21, kQXPixelFormatNV21},
      {AV_PIX_FMT_YUV420P, kQXPixelFormatYUV420P},
  };
  const auto it = av2qx_map.find(av_format);
  CHECK(it != av2qx_map.end()) << "not found pixel format " << static_cast<int>(av_format);
  return it->second;
}

AVPixelFormat WithoutColourRange(AVPixelFormat av_format) {
  switch (av_format) {
    case AV_PIX_FMT_YUV420P:
    case AV_PIX_FMT_YUVJ420P:
      return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_NV12:
    case AV_PIX_FMT_NV21:
      return av_format;
    default:
      return AV_PIX_FMT_NONE;
  }
}

}  // namespace ffmpeg
}  // namespace utils
}  // namespace qx
