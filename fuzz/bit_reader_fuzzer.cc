// The bit reader against a model that lays all bits out as text before anything is read.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/require.h"
#include "qx_utils/h264_h265_info_parse/bit_reader.h"

namespace {

using qx::fuzzing::Require;
using qx::utils::BitReader;

constexpr std::size_t kMaxReads = 32;

struct Model {
  std::string bits;                  // without emulation-prevention bytes, zeros behind the end
  std::vector<std::uint64_t> after;  // position in the buffer behind each of them
  std::size_t next = 0;
  std::uint64_t end;

  Model(const std::uint8_t* data, std::size_t size) : end(8 * size) {
    unsigned int zeros = 0;  // in a row, behind byte 0 and the last byte skipped
    for (std::size_t i = 0; i < 2 * size + 1; ++i) {
      const std::uint8_t byte = i < size ? data[i] : std::uint8_t{0};
      const bool skipped = byte == 3 && zeros == 2;
      zeros = i > 0 && byte == 0 ? zeros + 1 : 0;
      if (skipped) continue;
      for (unsigned int bit = 0; bit < 8; ++bit) {
        bits += (byte << bit & 0x80) != 0 ? '1' : '0';
        after.push_back(8 * i + bit + 1);
      }
    }
  }

  std::uint64_t Position() const { return next == 0 ? 0 : after[next - 1]; }

  std::uint32_t Read(std::uint64_t n) {
    if (Position() + n > end) return 0;
    const std::string text = bits.substr(next, n);
    next += n;
    const std::string last = text.size() > 32 ? text.substr(text.size() - 32) : text;
    return last.empty() ? 0 : static_cast<std::uint32_t>(std::stoull(last, nullptr, 2));
  }

  // True when the code at the read position is a valid one that ends in the buffer.
  bool ReadUE(std::uint32_t& value) {
    const std::size_t one = bits.find('1', next);
    if (one == std::string::npos || one - next > 31) return false;
    const std::size_t length = 2 * (one - next) + 1;
    if (next + length > after.size() || after[next + length - 1] > end) return false;
    const std::string text = bits.substr(one, one - next + 1);
    value = static_cast<std::uint32_t>(std::stoull(text, nullptr, 2) - 1);
    next += length;
    return true;
  }
};

}  // namespace

// Input: the number of reads, one byte for each (0 .. 99 bits, or above that a code), the payload.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 1024) return 0;
  const std::size_t reads = std::min<std::size_t>({data[0], size - 1, kMaxReads});
  const std::uint8_t* const payload = data + 1 + reads;
  const std::size_t payload_size = size - 1 - reads;
  const std::unique_ptr<std::uint8_t[]> block(new std::uint8_t[payload_size]);
  std::copy_n(payload, payload_size, block.get());
  Model model(payload, payload_size);
  BitReader reader;
  reader.data = block.get();
  reader.size = payload_size;
  for (std::size_t i = 1; i <= reads; ++i) {
    if (data[i] < 100) {
      Require(ReadBits(reader, data[i]) == model.Read(data[i]));
    } else {
      std::uint32_t expected = 0;
      const bool valid = model.ReadUE(expected);
      const std::uint32_t value = ReadUE(reader);
      if (!valid) return 0;
      Require(value == expected);
    }
    Require(reader.bit_pos == model.Position());
  }
  return 0;
}
