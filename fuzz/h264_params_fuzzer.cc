// ParseH264Params over arbitrary byte streams.
#include "fuzz/params_properties.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qx::fuzzing::CheckH264(data, size);
  return 0;
}
