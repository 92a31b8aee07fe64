// What holds for both parameter parsers whatever the bytes are.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/require.h"
#include "tests/testing/sps_writer.h"

namespace qx::fuzzing {

using Parser = utils::VideoParams (*)(const char*, std::size_t);
using TypeOf = std::uint32_t (*)(std::uint8_t header);

// Parses an exact-size block, where the address sanitizer sees every read outside, and the same
// bytes with two kinds of garbage around them.
inline utils::VideoParams ParseThrice(Parser parse, const std::uint8_t* data, std::size_t size) {
  const std::unique_ptr<char[]> block(new char[size]);
  std::copy_n(data, size, block.get());
  const utils::VideoParams result = parse(block.get(), size);
  for (const char garbage : {'\0', '\xFF'}) {
    std::vector<char> around(size + 32, garbage);
    std::copy_n(data, size, around.data() + 16);
    Require(testing::Fields(result) == testing::Fields(parse(around.data() + 16, size)));
  }
  return result;
}

// The header that a search must end at: the first of the set's type, else the last one.
inline const std::uint8_t* FinalHeader(const std::uint8_t* data, std::size_t size, TypeOf type_of,
                                       std::uint32_t sps_type) {
  const std::uint8_t* header = nullptr;
  for (std::size_t i = 4; i < size; ++i) {
    if (std::memcmp(data + i - 4, "\0\0\0\1", 4) != 0) continue;
    header = data + i;
    if (type_of(*header) == sps_type) break;
  }
  return header;
}

inline utils::VideoParams CheckSearch(Parser parse, TypeOf type_of, std::uint32_t sps_type,
                                      const std::uint8_t* data, std::size_t size) {
  const utils::VideoParams result = ParseThrice(parse, data, size);
  const std::uint8_t* const header = FinalHeader(data, size, type_of, sps_type);
  const std::uint32_t type = header == nullptr ? 0 : type_of(*header);
  Require(result.nal_unit_type == type);
  if (type != sps_type) {
    Require((result.width | result.height | result.profile_idc | result.level_idc |
             result.chroma_format_idc) == 0);
  }
  return result;
}

inline utils::VideoParams CheckH264(const std::uint8_t* data, std::size_t size) {
  const auto type_of = [](std::uint8_t header) { return header % 32U; };
  const auto result = CheckSearch(utils::ParseH264Params, type_of, 7, data, size);
  Require(result.is_h265 == 0 && result.profile_idc < 256 && result.level_idc < 256);
  Require(result.width >> 32 == 0 && result.height >> 32 == 0);
  return result;
}

inline utils::VideoParams CheckH265(const std::uint8_t* data, std::size_t size) {
  const auto type_of = [](std::uint8_t header) { return header / 2U % 64U; };
  const auto result = CheckSearch(utils::ParseH265Params, type_of, 33, data, size);
  Require(result.is_h265 == 1 && result.profile_idc < 32 && result.level_idc < 256);
  Require(result.chroma_format_idc <= 3 || (result.width | result.height) == 0);
  return result;
}

}  // namespace qx::fuzzing
