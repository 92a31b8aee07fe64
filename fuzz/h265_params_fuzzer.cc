// ParseH265Params over arbitrary byte streams.
#include "fuzz/params_properties.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using qx::fuzzing::Require;
  const auto type_of = [](std::uint8_t header) { return header / 2U % 64U; };
  const qx::utils::VideoParams result =
      qx::fuzzing::CheckParser(qx::utils::ParseH265Params, type_of, 33, data, size);
  Require(result.is_h265 == 1 && result.profile_idc < 32 && result.level_idc < 256);
  Require(result.chroma_format_idc <= 3 || (result.width | result.height) == 0);
  return 0;
}
