// ParseH264Params over arbitrary byte streams.
#include "fuzz/params_properties.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using qx::fuzzing::Require;
  const auto type_of = [](std::uint8_t header) { return header % 32U; };
  const qx::utils::VideoParams result =
      qx::fuzzing::CheckParser(qx::utils::ParseH264Params, type_of, 7, data, size);
  Require(result.is_h265 == 0 && result.profile_idc < 256 && result.level_idc < 256);
  Require(result.width >> 32 == 0 && result.height >> 32 == 0);
  return 0;
}
