// The scan for start codes: the one loop of the parsers that touches every byte of a packet.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx::utils {

constexpr std::size_t kStartCodeBytes = 4;

// Returns: the first place of the bytes 00 00 00 01 in [begin, end), or `end`.
// Cost:    a few instructions per 64 bytes, for any data.
const std::uint8_t* FindStartCode(const std::uint8_t* begin, const std::uint8_t* end);

}  // namespace qx::utils
