// Calibration files of any content, one or two.
#include <cstdint>

#include "fuzz/stereo_camera_properties.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qx::fuzzing::CheckCalibration(qx::fuzzing::TextsOf(std::string(data, data + size)));
  return 0;
}
