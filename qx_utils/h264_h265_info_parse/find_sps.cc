#include "qx_utils/h264_h265_info_parse/find_sps.h"

#include <glog/logging.h>

#include <algorithm>
#include <limits>

#include "qx_utils/h264_h265_info_parse/start_code.h"

namespace qx::utils {

std::optional<std::int32_t> FindSps(const std::uint8_t* data, std::size_t size,
                                    const CodecRules& rules, VideoParams& result) {
  const auto limit = static_cast<std::int32_t>(
      std::min<std::size_t>(size, std::numeric_limits<std::int32_t>::max()));
  std::int32_t start = 0;
  while (start < limit) {
    const std::uint8_t* const code = FindStartCode(data + start, data + limit);
    if (code == data + limit) {
      VLOG(1) << "not found SPS\n";
      break;
    }
    const std::ptrdiff_t si = code - (data + start);
    start = static_cast<std::int32_t>(code - data) + static_cast<std::int32_t>(kStartCodeBytes);
    if (start >= limit) break;
    const std::uint32_t type = (data[start] >> rules.type_shift) & rules.type_mask;
    VLOG(1) << "type code is " << type << "\n";
    result.nal_unit_type = type;
    const bool found = type == rules.sps_type;
    if (found) VLOG(1) << rules.found_message << start << "\n";
    VLOG(1) << "si = " << si << " start_i = " << start << "\n";
    if (found) return start;
  }
  return std::nullopt;
}

std::optional<BitReader> OpenSps(const char* data, std::size_t size, const CodecRules& rules,
                                 VideoParams& result) {
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(data);
  const std::size_t readable = bytes == nullptr ? 0 : size;
  const std::optional<std::int32_t> start = FindSps(bytes, readable, rules, result);
  if (!start) return std::nullopt;
  const std::size_t header_end = static_cast<std::size_t>(*start) + rules.header_bytes;
  const std::size_t payload = std::min(header_end, readable);
  BitReader reader;
  reader.data = bytes + payload;
  reader.size = readable - payload;
  return reader;
}

}  // namespace qx::utils
