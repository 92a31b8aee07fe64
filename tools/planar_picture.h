// Decoded frames as tightly packed I420, and as RGB.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "qxtools/image_frame.h"

namespace qx {
namespace tools {

// Width x height luma bytes, then the two chroma planes of half the size; no padding anywhere.
struct PlanarPicture {
  std::size_t width = 0;
  std::size_t height = 0;
  bool full_range = false;
  std::vector<std::uint8_t> bytes;
};

// Inputs: a frame from the library's decoder, with three planes or two.
PlanarPicture ToPlanar(const std::shared_ptr<velkar::vision::ImageFrame>& frame);

// Returns: height x width x 3 bytes. BT.601 coefficients, which cameras and standard definition
// use,
//          and the range that the picture says; each chroma sample serves its four pixels.
std::vector<std::uint8_t> ToRgb(const PlanarPicture& picture);

}  // namespace tools
}  // namespace qx
