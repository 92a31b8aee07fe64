// Copies between pictures of any geometry.
#include "fuzz/image_copy_properties.h"

// Input: pitch and rows of both pictures, format, kind of call, the source's bytes over and over.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeader = 6;
  if (size <= kHeader) return 0;
  qx::fuzzing::CheckCopyImage({data[0] % 80U, data[1] % 20U, data[5] % 16 == 1},
                              {data[2] % 80U, data[3] % 20U, data[5] % 16 == 2}, data[4] % 20,
                              data[5] / 16 % 2 != 0, data + kHeader, size - kHeader);
  return 0;
}
