// What the remapping's kernels for x86-64 share: vectors of 32 bytes.
//
// The multiplication of bytes takes weights without and pixels with a sign. So pixels are used
// minus 128, by flipping their highest bit, and so is the result.
#pragma once

#include <immintrin.h>

#include "qx_utils/stereo/kernels/remap_steps-inl.h"

namespace qx::utils::stereo {
namespace {

QXTOOLS_INLINE __m128i Load16(const std::uint8_t* from) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

QXTOOLS_INLINE __m256i Load16Twice(const std::uint8_t* from) {
  return _mm256_broadcastsi128_si256(Load16(from));
}

// Two vectors of 16 bytes from memory.
QXTOOLS_INLINE __m256i LoadBoth(const std::uint8_t* low, const std::uint8_t* high) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(Load16(low)), Load16(high), 1);
}

// The weights of left and right pixels from the fractions of both, in turns: 128 - fx and fx.
QXTOOLS_INLINE __m256i WeightsOf(__m256i fx_twice) {
  const __m256i flipped = _mm256_xor_si256(fx_twice, _mm256_set1_epi16(0xFF));
  return _mm256_add_epi8(flipped, _mm256_set1_epi16(kRemapUnit + 1));
}

// Values of 16 bits, minus 128, from pixels and weights in turns; `fy` times 256.
QXTOOLS_INLINE __m256i BlendPairs(__m256i above, __m256i below, __m256i weights, __m256i fy) {
  const __m256i flip = _mm256_set1_epi8(-128);
  const __m256i a = _mm256_maddubs_epi16(weights, _mm256_xor_si256(above, flip));
  const __m256i b = _mm256_maddubs_epi16(weights, _mm256_xor_si256(below, flip));
  const __m256i between = _mm256_add_epi16(a, _mm256_mulhrs_epi16(_mm256_sub_epi16(b, a), fy));
  return _mm256_srai_epi16(_mm256_add_epi16(between, _mm256_set1_epi16(kRemapUnit / 2)),
                           kRemapBits);
}

// Four pixels of three bytes: values of 16 bits, red green blue and one of no account for each.
// `first` is the first one's place in the vectors of eight fractions.
template <char kFirst>
QXTOOLS_INLINE __m256i BlendFour(const std::uint8_t* above, const std::uint8_t* below, __m256i fx,
                                 __m256i fy) {
  constexpr char a = kFirst, b = kFirst + 1, c = kFirst + 2, d = kFirst + 3, z = -1;
  const __m256i order = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(2, 5, 3, 6, 4, 7, 0, 1, 10, 13, 11, 14, 12, 15, 8, 9));
  const __m256i wide = _mm256_setr_epi8(a, a, a, a, a, a, a, a, b, b, b, b, b, b, b, b,  //
                                        c, c, c, c, c, c, c, c, d, d, d, d, d, d, d, d);
  const __m256i high = _mm256_setr_epi8(z, a, z, a, z, a, z, a, z, b, z, b, z, b, z, b,  //
                                        z, c, z, c, z, c, z, c, z, d, z, d, z, d, z, d);
  const auto load = [&](const std::uint8_t* from) QXTOOLS_INLINE_BODY {
    const auto* const pixels = reinterpret_cast<const __m256i*>(from + kFirst * kColourPair);
    return _mm256_shuffle_epi8(_mm256_loadu_si256(pixels), order);
  };
  return BlendPairs(load(above), load(below), WeightsOf(_mm256_shuffle_epi8(fx, wide)),
                    _mm256_shuffle_epi8(fy, high));
}

QXTOOLS_INLINE void BlendColourGroup(const std::uint8_t* above, const std::uint8_t* below,
                                     const std::uint8_t* fx, const std::uint8_t* fy,
                                     std::uint8_t* result) {
  const auto load = [](const std::uint8_t* from) QXTOOLS_INLINE_BODY {
    const auto* const eight = reinterpret_cast<const __m128i*>(from);
    return _mm256_broadcastsi128_si256(_mm_loadl_epi64(eight));
  };
  const __m256i fx8 = load(fx), fy8 = load(fy);
  const __m256i packed = _mm256_packs_epi16(BlendFour<0>(above, below, fx8, fy8),
                                            BlendFour<4>(above, below, fx8, fy8));
  // Pixels 0 1 4 5 and 2 3 6 7 into their order, then 12 bytes of each four.
  const __m256i ordered =
      _mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(0, 1, 4, 5, 2, 3, 6, 7));
  const __m256i close = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1));
  const __m256i colours =
      _mm256_xor_si256(_mm256_shuffle_epi8(ordered, close), _mm256_set1_epi8(-128));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(result), _mm256_castsi256_si128(colours));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(result + 12), _mm256_extracti128_si256(colours, 1));
}

}  // namespace
}  // namespace qx::utils::stereo
