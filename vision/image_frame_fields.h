// Gives the library's own producers access to a frame's private fields.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "qxtools/image_frame.h"

namespace velkar::vision {

struct ImageFrameFields {
  static void SetData(ImageFrameImpl& frame, std::uint8_t* data, std::uint32_t size) {
    frame.data_ = data;
    frame.data_size_ = size;
  }
  static void SetShape(ImageFrameImpl& frame, std::uint32_t height, std::uint32_t width,
                       std::uint32_t channels) {
    frame.height_ = height;
    frame.width_ = width;
    frame.channel_ = channels;
  }
  static void SetHolder(ImageFrameImpl& frame, std::shared_ptr<void> holder) {
    frame.holder_ = std::move(holder);
  }
};

}  // namespace velkar::vision
