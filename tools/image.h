// Pictures in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "qxtools/image_frame.h"

namespace qx::tools {

using FramePtr = std::shared_ptr<velkar::vision::ImageFrame>;

struct Rgb {
  std::uint8_t r, g, b;
};
static_assert(sizeof(Rgb) == 3, "libpng and swscale take rows of pixels as bytes");

// height x width values, row by row without padding.
template <typename T>
struct Image {
  Image() = default;
  Image(int columns, int rows, T value = {})
      : width(columns),
        height(rows),
        values(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows), value) {}

  T* Row(int y) { return values.data() + Offset(y); }
  const T* Row(int y) const { return values.data() + Offset(y); }
  std::size_t Offset(int y) const {
    return static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
  }

  int width = 0;
  int height = 0;
  std::vector<T> values;
};

}  // namespace qx::tools
