// What a picture file says about itself, read before FFmpeg gets it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/ffmpeg_handles.h"

namespace qx::utils::image::engine {

struct FileHeader {
  AVCodecID codec = AV_CODEC_ID_NONE;
  std::uint64_t width = 0;  // in pixels
  std::uint64_t height = 0;
  std::size_t size = 0;  // bytes of the file up to the end of the picture, as far as it is known
};

// Inputs: data  `size` bytes
// Returns: the header; sizes are not checked.
// Errors:  Failure when the file is of no known kind, ends in its header, or is a JPEG file with
//          four components or without an end.
FileHeader ReadFileHeader(const std::uint8_t* data, std::size_t size);

}  // namespace qx::utils::image::engine
