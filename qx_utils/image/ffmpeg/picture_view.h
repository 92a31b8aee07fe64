// Pictures as FFmpeg sees them: planes, pitches and a pixel format, in a frame's own memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "qx_utils/ffmpeg_handles.h"
#include "qxtools/image_frame.h"

namespace qx::utils::image::engine {

using FramePtr = std::shared_ptr<velkar::vision::ImageFrame>;

// How YUV samples relate to RGB. The default is what frames without a layout are taken for: FFmpeg
// computes with BT.601 where the matrix is unspecified.
struct YuvCoding {
  bool full_range = false;
  std::uint8_t matrix = AVCOL_SPC_UNSPECIFIED;  // a code of ITU-T H.273
};

// Borrowed memory. Unused planes are null.
struct PictureView {
  AVPixelFormat format = AV_PIX_FMT_NONE;
  int width = 0;  // in pixels
  int height = 0;
  std::array<std::uint8_t*, 4> data{};
  std::array<int, 4> pitch{};  // bytes from one row to the next
  YuvCoding coding;            // of YUV formats
  bool padded = false;         // FFmpeg's own: code that reads past the ends of rows is safe
};

// Throws a Failure for a picture without pixels or with more than kMaxEnginePixels.
void CheckSize(std::uint64_t width, std::uint64_t height);

bool IsYuv420(QXPixelFormat format);

// Returns: FFmpeg's name for `format`; native byte order for kQXPixelFormatGray16.
// Errors:  Failure when the format is none of pictures.
AVPixelFormat AvFormatOf(QXPixelFormat format);

// Returns: where the samples of `frame` are.
// Errors:  Failure for a null or empty frame, one that holds no picture, has more than
//          kMaxEnginePixels or is smaller than its shape, and for an odd size in 4:2:0 without
//          layout.
PictureView ViewOf(const FramePtr& frame);

// Returns: where the samples of FFmpeg's picture are.
PictureView ViewOf(const AVFrame& picture);

// Returns: a frame that owns its bytes, which are not initialised. 4:2:0 frames have a layout with
//          that coding, and chroma of odd sizes is rounded up.
// Errors:  Failure when a size is 0 or kMaxEnginePixels are exceeded; std::bad_alloc.
FramePtr NewPicture(QXPixelFormat format, std::size_t width, std::size_t height,
                    const YuvCoding& coding = {});

// Returns: such a frame over memory without gaps that `holder` owns; size and coding are those of
//          `picture`.
// Errors:  as NewPicture().
FramePtr FrameOver(std::uint8_t* data, std::shared_ptr<void> holder, QXPixelFormat format,
                   const PictureView& picture);

struct PlaneSize {
  int row_bytes;
  int rows;
};
PlaneSize SizeOfPlane(const PictureView& picture, std::size_t plane);

// Copies the samples between pictures of the same format and size.
void CopySamples(const PictureView& source, const PictureView& target);

}  // namespace qx::utils::image::engine
