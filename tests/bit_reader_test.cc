#include "qx_utils/h264_h265_info_parse/bit_reader.h"

#include "tests/testing/sps_writer.h"
#include "tests/testing/test.h"

namespace qx::utils {
namespace {

using testing::Bytes;

constexpr std::uint64_t kCode = 100;  // an Exp-Golomb code instead of so many bits

TEST(BitReader, ReadsBitsAndCodesWithoutEmulationPrevention) {
  const struct {
    const char* why;
    Bytes bytes;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> reads;  // bits to read and their value
    std::uint64_t bit_pos;
  } cases[] = {
      {"two zeros", {0x42, 0, 0, 3, 1}, {{32, 0x42000001}}, 40},
      {"bit by bit", {0x42, 0, 0, 3, 0x81}, {{24, 0x420000}, {1, 1}, {2, 0}, {5, 1}}, 40},
      {"three zeros", {0x42, 0, 0, 0, 3}, {{8, 0x42}, {32, 3}}, 40},
      {"one zero", {0x42, 0, 3}, {{24, 0x420003}}, 24},
      {"two zeros at the start", {0, 0, 3, 5}, {{32, 0x305}}, 32},
      {"three zeros at the start", {0, 0, 0, 3, 5}, {{32, 5}}, 40},
      {"not 3", {0x42, 0, 0, 2, 1}, {{8, 0x42}, {32, 0x201}}, 40},
      {"again", {9, 0, 0, 3, 0, 0, 3, 7}, {{16, 0x900}, {32, 7}}, 64},
      {"3 behind a skip stays", {9, 0, 0, 3, 3, 7}, {{32, 0x9000003}, {8, 7}}, 48},
      {"run broken by the skip", {9, 0, 0, 3, 0, 3, 7}, {{32, 0x9000000}, {16, 0x307}}, 56},
      {"the last 32 of 40 bits", {1, 2, 3, 4, 5}, {{40, 0x2030405}}, 40},
      {"the last byte is skipped", {9, 0, 0, 3}, {{24, 0x90000}, {4, 0}, {8, 0}}, 36},
      {"two skips pass the end", {9, 0, 0, 3, 0, 0, 3}, {{56, 0}}, 72},
      {"more than is left", {0, 1}, {{15, 0}, {2, 0}, {~0ULL, 0}, {0, 0}, {1, 1}, {1, 0}}, 16},
      {"1 010 011 00100", {0xA6, 0x48}, {{kCode, 0}, {kCode, 1}, {kCode, 2}, {kCode, 3}}, 12},
      {"31 zeros", {0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFE}, {{kCode, 0xFFFFFFFE}}, 63},
      {"32 zeros", {0, 0, 0, 0, 0x80, 0, 0, 2, 0x80}, {{kCode, 4}}, 65},
      {"33 zeros", {0, 0, 0, 0, 0x40, 0, 0, 2, 0}, {{kCode, 0x80000003}}, 65},
      {"cut off in the zeros", {0x10, 0}, {{kCode, 7}, {kCode, 255}}, 16},
      {"cut off behind the one", {0x01}, {{kCode, 127}}, 8},
      {"nothing", {}, {{kCode, 0}, {1, 0}}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    const GuardedBuffer buffer(c.bytes.size());
    std::copy(c.bytes.begin(), c.bytes.end(), buffer.data());
    BitReader reader;
    reader.data = buffer.data();
    reader.size = buffer.size();
    for (const auto& [bits, value] : c.reads) {
      EXPECT_EQ(bits == kCode ? ReadUE(reader) : ReadBits(reader, bits), value) << bits;
    }
    EXPECT_EQ(reader.bit_pos, c.bit_pos);
  }
}

}  // namespace
}  // namespace qx::utils
