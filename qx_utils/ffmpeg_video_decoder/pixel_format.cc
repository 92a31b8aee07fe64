#include "qx_utils/ffmpeg_video_decoder/pixel_format.h"

#include <glog/logging.h>

#include <map>

namespace qx::utils::ffmpeg {

namespace {

const std::map<AVPixelFormat, QXPixelFormat>& Formats() {
  static const std::map<AVPixelFormat, QXPixelFormat> formats = {
      {AV_PIX_FMT_NV12, kQXPixelFormatNV12},
      {AV_PIX_FMT_NV21, kQXPixelFormatNV21},
      {AV_PIX_FMT_YUV420P, kQXPixelFormatYUV420P},
  };
  return formats;
}

}  // namespace

QXPixelFormat ConvertAvPixelFormat(AVPixelFormat av_format) {
  // CHECK prints its expression, and that text is part of the interface: do not rename these.
  const auto& av2qx_map = Formats();
  const auto it = av2qx_map.find(av_format);
  CHECK(it != av2qx_map.end()) << "not found pixel format " << static_cast<int>(av_format);
  return it->second;
}

AVPixelFormat WithoutColourRange(AVPixelFormat av_format) {
  if (av_format == AV_PIX_FMT_YUVJ420P) return AV_PIX_FMT_YUV420P;
  return Formats().count(av_format) != 0 ? av_format : AV_PIX_FMT_NONE;
}

}  // namespace qx::utils::ffmpeg
