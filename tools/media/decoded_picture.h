// Pictures of the library's decoder in other arrangements of their samples.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qxtools/ffmpeg_video_decoder.h"
#include "tools/image.h"

namespace qx::tools {

// The samples of a decoded frame in the order of an I420 file: as few pieces as the frame's row
// padding allows, without a copy unless its chroma is interleaved. Where a frame of odd size has
// one chroma column or row less than the file, the last one repeats. Borrows the frame.
class PlanarSamples {
 public:
  explicit PlanarSamples(const velkar::vision::ImageFrame& frame,
                         const utils::ffmpeg::FrameLayout& layout);

  const std::vector<iovec>& Pieces() const { return pieces_; }
  std::vector<std::uint8_t> Copy() const;

 private:
  struct Plane {
    const std::uint8_t* data;
    std::size_t pitch, width, height;
  };

  void Append(const std::uint8_t* data, std::size_t size);
  void AppendChroma(const Plane& plane, std::size_t width, std::size_t height);
  Plane Separate(const Plane& interleaved, std::size_t first, std::vector<std::uint8_t>& samples);

  std::vector<iovec> pieces_;
  std::vector<std::uint8_t> separated_[2];  // chroma that was interleaved
};

// Returns: a decoder's frame in RGB, by the range and the matrix that its stream names.
// Errors:  as ToRgb() of tools/media/ffmpeg.h.
Image<Rgb> RgbOf(const FramePtr& frame);

}  // namespace qx::tools
