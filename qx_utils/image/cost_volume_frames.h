// What the cost volumes read of a frame, and the checks that all of them begin with.
#pragma once

#include <cstdint>
#include <ostream>

#include "qxtools/image_frame.h"

namespace qx::utils::internal {

// A frame's attributes, read once: a user-defined frame may return different values on each call.
struct FrameView {
  explicit FrameView(const velkar::vision::ImageFrame& frame);

  // Named as ImageFrame's accessors, so that CheckCostVolumeFrames() takes either.
  std::uint32_t DataSize() const { return data_size; }
  std::uint32_t Height() const { return height; }
  std::uint32_t Width() const { return width; }
  std::uint32_t Channel() const { return channels; }

  // height x width x channels, or a value above 32 bits if the product overflows.
  std::uint64_t Elements() const;

  QXPixelFormat pixel_format;
  float scale;
  std::uint8_t* data;
  std::uint32_t data_size;
  std::uint32_t height;
  std::uint32_t width;
  std::uint32_t channels;
};

// "(height, width, channels) ", with a trailing blank.
std::ostream& operator<<(std::ostream& out, const FrameView& view);

// Ends the process through a fatal log line unless all frames hold 8-bit maps and the inputs have
// the same size; logs the inputs' shapes. Frame: FrameView or ImageFrame. Never calls Data().
//
// Takes pointers because a failed check prints its own expression, "input_l->DataSize() == ...",
// and that text is part of the interface: the parameters' names and the arrows must not change.
template <typename Frame>
void CheckCostVolumeFrames(const Frame* input_l, const Frame* input_r, const Frame* output);

}  // namespace qx::utils::internal
