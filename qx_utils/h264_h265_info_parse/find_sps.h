// Locates the first sequence parameter set of a byte stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "qx_utils/h264_h265_info_parse/bit_reader.h"
#include "qxtools/h264_h265_info_parse.h"

namespace qx::utils {

// How a codec writes its NAL unit headers.
struct CodecRules {
  std::size_t header_bytes;
  unsigned int type_shift;  // nal_unit_type = (first header byte >> type_shift) & type_mask
  unsigned int type_mask;
  std::uint32_t sps_type;
  const char* found_message;  // logged with the offset of the header
};

// Returns: the offset of the header of the first SPS after a 4-byte start code, or nothing.
//          Offsets are 32-bit signed: in a larger buffer only the first 2^31 - 1 bytes are
//          searched.
// Output:  nal_unit_type of `result`, when any header was seen.
std::optional<std::int32_t> FindSps(const std::uint8_t* data, std::size_t size,
                                    const CodecRules& rules, VideoParams& result);

// Returns: a reader at the first byte after that header, up to the end of the buffer.
std::optional<BitReader> OpenSps(const char* data, std::size_t size, const CodecRules& rules,
                                 VideoParams& result);

}  // namespace qx::utils
