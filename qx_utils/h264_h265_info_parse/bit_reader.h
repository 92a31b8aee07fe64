// Reads the bits of a NAL unit, most significant first, without its emulation-prevention bytes.
#pragma once

#include <cstdint>

namespace qx::utils {

// One pass over the payload of a NAL unit. Borrows the bytes; set `data` and `size`, leave the
// rest 0.
//
// Byte 0 is never examined for emulation prevention: it neither counts as a zero byte nor is it
// skipped.
struct BitReader {
  const std::uint8_t* data = nullptr;
  std::uint64_t size = 0;       // bytes from `data` to the end of the caller's buffer
  std::uint64_t bit_pos = 0;    // next bit; skipped bytes are counted
  std::uint64_t last_byte = 0;  // index of the byte examined last
  std::uint64_t zero_run = 0;   // zero bytes examined immediately before the current one
};

// True while at least one more bit can be read.
inline bool HasBits(const BitReader& r) { return r.bit_pos < 8 * r.size; }

// Returns: the next `n` bits, of which the last 32 remain when n is larger; 0, with the reader
//          unchanged, when fewer than `n` bits are left (logged at verbose level 1).
//
// The check does not count the emulation-prevention bytes on the way, so a read that skips some may
// run past the end: bits there are 0.
std::uint32_t ReadBits(BitReader& r, std::uint64_t n);

// Reads one Exp-Golomb code ue(v). A signed se(v) has the same length.
//
// Returns: the value modulo 2^32, which matters only for 32 leading zeros: 2^32 - 1 + x becomes
//          x - 1. 33 or more leading zeros, which no valid code has, give x - 1 too, x being the 32
//          bits after the 33rd zero. A code cut off after z zeros gives 2^z - 1.
std::uint32_t ReadUE(BitReader& r);

}  // namespace qx::utils
