// A grey picture in somebody else's memory.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx::utils::stereo {

// Pixel (x, y) is data[y * pitch + x]. Borrowed; `width` is at most `pitch`.
struct GreyView {
  const std::uint8_t* data;
  std::size_t pitch;   // bytes from one row to the next
  std::size_t width;   // pixels of a row
  std::size_t height;  // rows
};

}  // namespace qx::utils::stereo
