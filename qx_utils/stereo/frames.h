// Frames as stereo matching takes them and makes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "qx_utils/stereo/grey_view.h"
#include "qxtools/image_frame.h"

namespace qx::utils::stereo {

using FramePtr = std::shared_ptr<velkar::vision::ImageFrame>;
using FrameImplPtr = std::shared_ptr<velkar::vision::ImageFrameImpl>;

struct Shape {
  std::size_t height, width, channels;

  std::size_t Values() const { return height * width * channels; }
  bool operator==(const Shape& other) const {
    return height == other.height && width == other.width && channels == other.channels;
  }
};

// Returns: the luma of a grey or 4:2:0 frame, in place.
// Errors:  std::invalid_argument that names the frame by `name` when it is null, empty, of another
//          format, or smaller than its shape.
GreyView LumaOf(const FramePtr& frame, const char* name);

// Returns: the shape of a frame of `format`, of `value_bytes` bytes a value.
// Errors:  as LumaOf().
Shape ShapeOf(const FramePtr& frame, QXPixelFormat format, std::size_t value_bytes,
              const char* name);

// Errors: std::invalid_argument that names both when a frame of this shape has not the picture's
// size.
void CheckSameSize(const Shape& shape, const char* name, const GreyView& picture,
                   const char* picture_name);

// Returns: a frame that owns its bytes, which are not initialised.
// Errors:  std::length_error when the size does not fit a frame; std::bad_alloc.
FrameImplPtr NewFrame(QXPixelFormat format, const Shape& shape, float scale);

// Returns: such a frame for the disparities of a picture of that size.
FrameImplPtr NewDisparityMap(std::size_t width, std::size_t height);

// Returns: and for their confidence.
FrameImplPtr NewConfidenceMap(std::size_t width, std::size_t height);

template <typename T>
T* ValuesOf(const FrameImplPtr& frame) {
  return reinterpret_cast<T*>(frame->Data());
}

// Returns: "<height> x <width> x <channels>", for messages.
std::string Text(const Shape& shape);

}  // namespace qx::utils::stereo
