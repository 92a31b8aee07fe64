#include "qx_utils/stereo/camera/depth_inputs.h"

#include <cmath>
#include <stdexcept>
#include <string>

namespace qx::utils::stereo {

void CheckGeometry(const StereoGeometry& geometry) {
  const auto check = [](bool good, const char* name, double value) {
    if (good && std::isfinite(value)) return;
    throw std::invalid_argument("geometry: " + std::string(name) + " is " + std::to_string(value));
  };
  check(geometry.focal_length > 0, "focal_length", geometry.focal_length);
  check(geometry.baseline > 0, "baseline", geometry.baseline);
  check(true, "center_x", geometry.center_x);
  check(true, "center_y", geometry.center_y);
  check(true, "center_x_right", geometry.center_x_right);
}

const std::uint8_t* ConfidenceOf(const FramePtr& confidence, const Shape& size) {
  if (confidence == nullptr) return nullptr;
  CheckShape(ShapeOf(confidence, kQXPixelFormatGray8, 1, "confidence"), size, "confidence");
  return confidence->Data();
}

void CheckShape(const Shape& shape, const Shape& expected, const char* name) {
  if (shape == expected) return;
  throw std::invalid_argument(std::string(name) + ": " + Text(shape) + " values instead of " +
                              Text(expected));
}

}  // namespace qx::utils::stereo
