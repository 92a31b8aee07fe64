#include "qx_utils/h264_h265_info_parse/start_code.h"

#include <cstring>

namespace qx::utils {
namespace {

// Vectors of the compiler rather than intrinsics: the same source becomes SSE2, NEON, or plain
// integer code where there is no vector unit.
constexpr std::size_t kVectorBytes = 16;
constexpr std::size_t kBlockBytes = 4 * kVectorBytes;
using Bytes = std::uint8_t __attribute__((vector_size(kVectorBytes)));
using Words = std::uint16_t __attribute__((vector_size(kVectorBytes)));

template <typename Vector>
Vector Load(const std::uint8_t* p) {
  Vector v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <typename Vector>
bool AnyBitSet(const Vector& v) {
  std::uint64_t halves[2];
  static_assert(sizeof halves == sizeof v, "two halves make a vector");
  std::memcpy(halves, &v, sizeof v);
  return (halves[0] | halves[1]) != 0;
}

// Lanes in which a 16-bit word at `p` is zero.
auto ZeroWords(const std::uint8_t* p) { return Load<Words>(p) == 0; }

// Lanes at which a start code begins.
auto StartCodes(const std::uint8_t* p) {
  const Bytes zeros = Load<Bytes>(p) | Load<Bytes>(p + 1) | Load<Bytes>(p + 2);
  return (zeros | (Load<Bytes>(p + 3) ^ 1)) == 0;
}

// The quick sieve. Of the three zeros of a start code that begins in the block at `p`, two share
// one of the 16-bit words that lie at p + 1, p + 3, ..., p + 63.
bool HasZeroWord(const std::uint8_t* p) {
  return AnyBitSet((ZeroWords(p + 1) | ZeroWords(p + 17)) |
                   (ZeroWords(p + 33) | ZeroWords(p + 49)));
}

// Exact: whether a start code begins in the block at `p`.
bool HasStartCode(const std::uint8_t* p) {
  return AnyBitSet((StartCodes(p) | StartCodes(p + 16)) |
                   (StartCodes(p + 32) | StartCodes(p + 48)));
}

bool IsStartCode(const std::uint8_t* p) { return p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1; }

}  // namespace

const std::uint8_t* FindStartCode(const std::uint8_t* begin, const std::uint8_t* end) {
  constexpr std::ptrdiff_t kCode = kStartCodeBytes;
  constexpr std::ptrdiff_t kBlockReach = kBlockBytes + kCode - 1;
  constexpr std::ptrdiff_t kVectorReach = kVectorBytes + kCode - 1;
  const std::uint8_t* p = begin;
  while (end - p >= kBlockReach && !(HasZeroWord(p) && HasStartCode(p))) p += kBlockBytes;
  while (end - p >= kVectorReach && !AnyBitSet(StartCodes(p))) p += kVectorBytes;
  for (; end - p >= kCode; ++p) {
    if (IsStartCode(p)) return p;
  }
  return end;
}

}  // namespace qx::utils
