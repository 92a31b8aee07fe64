// What a cost volume needs to know of a frame, and the checks with which each of them begins.
#pragma once

#include <cstdint>
#include <ostream>

#include "qxtools/image_frame.h"

namespace qx::utils::internal {

// A frame's attributes, read once: a frame of somebody else's could answer differently each time.
struct FrameView {
  explicit FrameView(const velkar::vision::ImageFrame& frame);

  // As ImageFrame's accessors.
  std::uint32_t DataSize() const { return data_size; }
  std::uint32_t Height() const { return height; }
  std::uint32_t Width() const { return width; }
  std::uint32_t Channel() const { return channels; }

  // Elements, or more than 32 bits hold when the product does not fit.
  std::uint64_t Elements() const;

  QXPixelFormat pixel_format;
  float scale;
  std::uint8_t* data;
  std::uint32_t data_size;
  std::uint32_t height;
  std::uint32_t width;
  std::uint32_t channels;
};

// "(height, width, channels) ", with the blank at the end.
std::ostream& operator<<(std::ostream& out, const FrameView& view);

// Ends the process through a fatal log line unless all frames hold 8-bit maps and the inputs are of
// one size; logs the inputs' shapes. Frame: FrameView or ImageFrame; nobody asks for Data().
template <typename Frame>
void CheckCostVolumeFrames(const Frame* input_l, const Frame* input_r, const Frame* output);

}  // namespace qx::utils::internal
