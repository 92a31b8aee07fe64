// Remapping with AVX-512: 32 pixels at a time, a group in each quarter of a vector.
#include "qx_utils/stereo/kernels/remap_x86-inl.h"

namespace qx::utils::stereo {
namespace {

// Four vectors of 16 bytes from memory. A masked load needs no shuffle.
QXTOOLS_INLINE __m512i LoadFour(const std::uint8_t* const (&from)[4], std::size_t offset) {
  __m512i all = _mm512_castsi128_si512(Load16(from[0] + offset));
  all = _mm512_mask_broadcast_i32x4(all, 0x00F0, Load16(from[1] + offset));
  all = _mm512_mask_broadcast_i32x4(all, 0x0F00, Load16(from[2] + offset));
  return _mm512_mask_broadcast_i32x4(all, 0xF000, Load16(from[3] + offset));
}

// 32 bytes, each twice.
QXTOOLS_INLINE __m512i LoadTwice(const std::uint8_t* from) {
  const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
  const __m512i words = _mm512_cvtepu8_epi16(bytes);
  return _mm512_or_si512(words, _mm512_slli_epi16(words, 8));
}

struct Avx512 {
  static constexpr std::size_t kGroups = 4;
  using Pixels = __m512i;

  static QXTOOLS_INLINE void FromWindows(const GreyView& source, const std::uint32_t* groups,
                                         const std::uint8_t* places, Pixels& above, Pixels& below) {
    const std::size_t pitch = source.pitch;
    const std::uint8_t* corners[4];
    Unroll<4>([&](auto i) QXTOOLS_INLINE_BODY {
      corners[i] = source.data + (groups[i] >> 16U) * pitch + (groups[i] & 0xFFFFU);
    });
    // Each place twice, the second one a column further: the permute ignores the row's bit.
    const __m512i place = _mm512_add_epi8(LoadTwice(places), _mm512_set1_epi16(0x0100));
    const __mmask64 second_row = _mm512_test_epi8_mask(place, _mm512_set1_epi8(16));
    const __m512i row0 = _mm512_shuffle_epi8(LoadFour(corners, 0), place);
    const __m512i row1 = _mm512_shuffle_epi8(LoadFour(corners, pitch), place);
    const __m512i row2 = _mm512_shuffle_epi8(LoadFour(corners, 2 * pitch), place);
    above = _mm512_mask_blend_epi8(second_row, row0, row1);
    below = _mm512_mask_blend_epi8(second_row, row1, row2);
  }

  static QXTOOLS_INLINE Pixels FromPairs(const std::uint8_t* pairs) {
    return _mm512_loadu_si512(pairs);
  }

  static QXTOOLS_INLINE void Blend(Pixels above, Pixels below, const std::uint8_t* fx,
                                   const std::uint8_t* fy, std::uint8_t* result) {
    const __m512i flip = _mm512_set1_epi8(-128);
    const __m512i weights =
        _mm512_add_epi8(_mm512_xor_si512(LoadTwice(fx), _mm512_set1_epi16(0xFF)),
                        _mm512_set1_epi16(kRemapUnit + 1));
    const __m256i fy_bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(fy));
    const __m512i fy_high = _mm512_slli_epi16(_mm512_cvtepu8_epi16(fy_bytes), 8);
    const __m512i a = _mm512_maddubs_epi16(weights, _mm512_xor_si512(above, flip));
    const __m512i b = _mm512_maddubs_epi16(weights, _mm512_xor_si512(below, flip));
    const __m512i between =
        _mm512_add_epi16(a, _mm512_mulhrs_epi16(_mm512_sub_epi16(b, a), fy_high));
    const __m512i values =
        _mm512_srai_epi16(_mm512_add_epi16(between, _mm512_set1_epi16(kRemapUnit / 2)), kRemapBits);
    const __m256i bytes = _mm512_cvtepi16_epi8(values);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(result),
                        _mm256_xor_si256(bytes, _mm256_set1_epi8(-128)));
  }

  static QXTOOLS_INLINE void BlendColours(const std::uint8_t* above, const std::uint8_t* below,
                                          const std::uint8_t* fx, const std::uint8_t* fy,
                                          std::uint8_t* result) {
    BlendColourGroup(above, below, fx, fy, result);
  }
};

}  // namespace

const RemapKernel kRemapAvx512 = {RemapGrey<Avx512>, RemapColour<Avx512>};

}  // namespace qx::utils::stereo
