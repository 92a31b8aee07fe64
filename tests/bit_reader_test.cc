#include "qx_utils/h264_h265_info_parse/bit_reader.h"

#include "tests/testing/sps_writer.h"
#include "tests/testing/test.h"

namespace qx {
namespace utils {
namespace {

using testing::Bytes;

BitReader ReaderOf(const GuardedBuffer& buffer) {
  BitReader reader;
  reader.data = buffer.data();
  reader.size = buffer.size();
  return reader;
}

TEST(ReadBits, SkipsEmulationPrevention) {
  const struct {
    const char* why;
    Bytes bytes;
    std::vector<std::uint64_t> counts;
    std::vector<std::uint32_t> values;
    std::uint64_t bit_pos;
  } cases[] = {
      {"two zeros", {0x42, 0, 0, 3, 1}, {32}, {0x42000001}, 40},
      {"bit by bit", {0x42, 0, 0, 3, 0x81}, {24, 1, 1, 1, 5}, {0x420000, 1, 0, 0, 1}, 40},
      {"before a larger byte", {0x42, 0, 0, 3, 0x80}, {24, 8}, {0x420000, 0x80}, 40},
      {"three zeros", {0x42, 0, 0, 0, 3}, {8, 32}, {0x42, 3}, 40},
      {"one zero", {0x42, 0, 3}, {24}, {0x420003}, 24},
      {"two zeros at the start", {0, 0, 3, 5}, {32}, {0x305}, 32},
      {"three zeros at the start", {0, 0, 0, 3, 5}, {32}, {5}, 40},
      {"not 3", {0x42, 0, 0, 2, 1}, {8, 32}, {0x42, 0x201}, 40},
      {"again", {9, 0, 0, 3, 0, 0, 3, 7}, {16, 32}, {0x900, 7}, 64},
      {"3 behind a skip stays", {9, 0, 0, 3, 3, 7}, {32, 8}, {0x9000003, 7}, 48},
      {"run broken by the skip", {9, 0, 0, 3, 0, 3, 7}, {32, 16}, {0x9000000, 0x307}, 56},
      {"the last 32 of 40 bits", {1, 2, 3, 4, 5}, {40}, {0x2030405}, 40},
      {"no bits", {0xFF}, {0, 1, 0}, {0, 1, 0}, 1},
      {"the last byte is skipped", {9, 0, 0, 3}, {24, 4, 8}, {0x90000, 0, 0}, 36},
      {"two skips pass the end", {9, 0, 0, 3, 0, 0, 3}, {56}, {0}, 72},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    const GuardedBuffer buffer(c.bytes.size());
    std::copy(c.bytes.begin(), c.bytes.end(), buffer.data());
    BitReader r = ReaderOf(buffer);
    for (std::size_t i = 0; i < c.counts.size(); ++i) {
      EXPECT_EQ(ReadBits(r, c.counts[i]), c.values[i]) << "read " << i;
    }
    EXPECT_EQ(r.bit_pos, c.bit_pos);
  }
}

TEST(ReadBits, RefusesMoreThanIsLeftAndStaysWhereItWas) {
  const GuardedBuffer buffer(2);
  buffer.data()[1] = 0x01;
  BitReader r = ReaderOf(buffer);
  EXPECT_EQ(ReadBits(r, 15), 0U);
  const LogCapture log(1);
  EXPECT_EQ(ReadBits(r, 2), 0U);
  EXPECT_EQ(ReadBits(r, ~std::uint64_t{0}), 0U);
  EXPECT_EQ(r.bit_pos, 15U);
  EXPECT_EQ(ReadBits(r, 1), 1U);
  EXPECT_EQ(ReadBits(r, 1), 0U);
  EXPECT_EQ(r.bit_pos, 16U);
  EXPECT_THAT(log.Messages(), ElementsAre("bit_num=2, exceed bit stream",
                                          "bit_num=18446744073709551615, exceed bit stream",
                                          "bit_num=1, exceed bit stream"));
}

TEST(ReadUE, ReadsExpGolombCodes) {
  const struct {
    const char* why;
    Bytes bytes;
    std::vector<std::uint32_t> values;
    std::uint64_t bit_pos;
  } cases[] = {
      {"1 010 011 00100 1", {0xA6, 0x48}, {0, 1, 2, 3, 0}, 13},
      {"31 zeros", {0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFE}, {0xFFFFFFFE}, 63},
      {"32 zeros", {0, 0, 0, 0, 0x80, 0, 0, 2, 0x80}, {4}, 65},
      {"33 zeros", {0, 0, 0, 0, 0x40, 0, 0, 2, 0}, {0x80000003}, 65},
      {"cut off in the zeros", {0x10, 0}, {7, 255}, 16},
      {"cut off behind the one", {0x01}, {127}, 8},
      {"nothing", {}, {0, 0}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    const GuardedBuffer buffer(c.bytes.size());
    std::copy(c.bytes.begin(), c.bytes.end(), buffer.data());
    BitReader r = ReaderOf(buffer);
    for (const std::uint32_t value : c.values) EXPECT_EQ(ReadUE(r), value);
    EXPECT_EQ(r.bit_pos, c.bit_pos);
  }
}

}  // namespace
}  // namespace utils
}  // namespace qx
