// What is true of every frame that the media engine returns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <numeric>

#include "fuzz/require.h"
#include "qxtools/image_frame.h"

namespace qx::fuzzing {

// Returns: the bytes of a picture without padding; 0 for a format that pictures do not have.
inline std::size_t PictureBytes(QXPixelFormat format, std::size_t width, std::size_t height) {
  switch (format) {
    case kQXPixelFormatGray8:
      return width * height;
    case kQXPixelFormatGray16:
      return width * height * 2;
    case kQXPixelFormatNV21:
    case kQXPixelFormatNV12:
    case kQXPixelFormatYUV420P:
      return width * height + (width + 1) / 2 * ((height + 1) / 2) * 2;
    case kQXPixelFormatRGB888:
    case kQXPixelFormatBGR888:
      return width * height * 3;
    case kQXPixelFormatARGB8888:
    case kQXPixelFormatBGRA8888:
      return width * height * 4;
    default:
      return 0;
  }
}

inline void CheckPicture(const std::shared_ptr<velkar::vision::ImageFrame>& frame) {
  const std::size_t bytes = PictureBytes(frame->pixel_format, frame->Width(), frame->Height());
  Require(bytes > 0 && frame->DataSize() == bytes);
  volatile unsigned sum = std::accumulate(frame->Data(), frame->Data() + bytes, 0U);  // readable
  static_cast<void>(sum);
}

}  // namespace qx::fuzzing
