// The planes of a picture, one by one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "qx_utils/image/ffmpeg/picture_view.h"

namespace qx::utils::image::engine {

// Borrowed memory: rows of pixels, each of some values of 1 or 2 bytes.
struct Plane {
  std::uint8_t* data = nullptr;
  std::ptrdiff_t pitch = 0;  // bytes from one row to the next
  int width = 0;             // in pixels of this plane
  int height = 0;
  int values = 1;  // per pixel
  int value_bytes = 1;

  std::uint8_t* Row(int y) const { return data + y * pitch; }
  std::ptrdiff_t RowBytes() const { return std::ptrdiff_t{width} * values * value_bytes; }
};

struct Planes {
  std::array<Plane, 4> plane;
  int count = 0;

  const Plane* begin() const { return plane.data(); }
  const Plane* end() const { return plane.data() + count; }
};

// Inputs: view  in the format of one of the library's pictures, or in another one whose planes hold
//               whole pixels of 8 or 16 bits per value.
Planes PlanesOf(const PictureView& view);

// Returns: rows `first` .. `first + rows - 1` of the picture; `first` is a multiple of the height
//          of a chroma sample.
PictureView RowsOf(const PictureView& view, int first, int rows);

}  // namespace qx::utils::image::engine
