// Decoded frames as tightly packed I420 without a copy, and as RGB.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "qxtools/image_frame.h"

struct SwsContext;

namespace qx::tools {

struct ScalerDeleter {
  void operator()(SwsContext* scaler) const;
};
using ScalerPtr = std::unique_ptr<SwsContext, ScalerDeleter>;

// A frame as its bytes stand in an I420 file: width x height luma bytes, then the two chroma planes
// of (width + 1) / 2 x (height + 1) / 2 bytes. A frame of odd size has one chroma column or row
// less; the last one repeats.
class PlanarPicture {
 public:
  // Inputs: a frame from the library's decoder, with three planes or two. It lives as long as the
  //         picture.
  explicit PlanarPicture(std::shared_ptr<velkar::vision::ImageFrame> frame);

  std::size_t Width() const { return width_; }
  std::size_t Height() const { return height_; }
  bool FullRange() const { return full_range_; }

  // Returns: how YCbCr was made of RGB, as ITU-T H.273 numbers it; 2 when the stream does not say.
  int Matrix() const { return matrix_; }

  // Returns: the bytes in order, as few pieces as the frame's row padding allows.
  const std::vector<iovec>& Pieces() const { return pieces_; }

 private:
  struct Plane {
    const std::uint8_t* data;
    std::size_t pitch, width, height;
  };

  void Append(const std::uint8_t* data, std::size_t size);
  void AppendLuma(const Plane& plane);
  void AppendChroma(const Plane& plane);
  Plane Separate(const Plane& interleaved, std::size_t first, std::vector<std::uint8_t>& samples);

  std::shared_ptr<velkar::vision::ImageFrame> frame_;
  std::size_t width_;
  std::size_t height_;
  bool full_range_;
  int matrix_;
  std::vector<iovec> pieces_;
  std::vector<std::uint8_t> separated_[2];  // chroma of a frame with two planes
};

// Returns: height x width x 3 bytes, by the range and the matrix that the picture says, BT.601
//          where it says none.
// Errors:  std::runtime_error when FFmpeg cannot convert it.
std::vector<std::uint8_t> ToRgb(const PlanarPicture& picture);

}  // namespace qx::tools
