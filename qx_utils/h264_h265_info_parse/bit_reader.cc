#include "qx_utils/h264_h265_info_parse/bit_reader.h"

#include <glog/logging.h>

namespace qx::utils {
namespace {

constexpr std::uint8_t kEmulationPrevention = 0x03;

std::uint8_t ByteAt(const BitReader& r, std::uint64_t index) {
  return index < r.size ? r.data[index] : std::uint8_t{0};
}

// Called when byte `index` is reached; moves past it when it is an emulation-prevention byte.
void Examine(BitReader& r, std::uint64_t index) {
  const std::uint8_t byte = ByteAt(r, index);
  r.last_byte = index;
  if (byte == 0) {
    ++r.zero_run;
    return;
  }
  if (byte == kEmulationPrevention && r.zero_run == 2) r.bit_pos += 8;
  r.zero_run = 0;
}

std::uint32_t NextBit(BitReader& r) {
  const std::uint64_t index = r.bit_pos / 8;
  if (index != r.last_byte) Examine(r, index);
  const unsigned int byte = ByteAt(r, r.bit_pos / 8);
  const unsigned int bit = (byte >> (7 - r.bit_pos % 8)) & 1U;
  ++r.bit_pos;
  return bit;
}

}  // namespace

std::uint32_t ReadBits(BitReader& r, std::uint64_t n) {
  const std::uint64_t end = 8 * r.size;
  if (r.bit_pos > end || n > end - r.bit_pos) {
    VLOG(1) << "bit_num=" << n << ", exceed bit stream\n";
    return 0;
  }
  std::uint32_t value = 0;
  for (; n != 0; --n) value = (value << 1) | NextBit(r);
  return value;
}

std::uint32_t ReadUE(BitReader& r) {
  unsigned int zeros = 0;
  while (ReadBits(r, 1) == 0 && HasBits(r)) {
    if (zeros == 32) return ReadBits(r, 32) - 1;
    ++zeros;
  }
  const std::uint64_t offset = (std::uint64_t{1} << zeros) - 1;
  return ReadBits(r, zeros) + static_cast<std::uint32_t>(offset);
}

}  // namespace qx::utils
