// Remapping with AVX2: 16 pixels at a time, a group in each half of a vector.
#include "qx_utils/stereo/kernels/remap_x86-inl.h"

namespace qx::utils::stereo {
namespace {

struct Avx2 {
  static constexpr std::size_t kGroups = 2;
  using Pixels = __m256i;

  static QXTOOLS_INLINE void FromWindows(const GreyView& source, const std::uint32_t* groups,
                                         const std::uint8_t* places, Pixels& above, Pixels& below) {
    const std::size_t pitch = source.pitch;
    const std::uint8_t* const a = source.data + (groups[0] >> 16U) * pitch + (groups[0] & 0xFFFFU);
    const std::uint8_t* const b = source.data + (groups[1] >> 16U) * pitch + (groups[1] & 0xFFFFU);
    // Each place twice, the second one a column further: the permute ignores the row's bit.
    const __m256i twice =
        _mm256_setr_epi8(0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7,  //
                         8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13, 14, 14, 15, 15);
    const __m256i place =
        _mm256_add_epi8(_mm256_shuffle_epi8(Load16Twice(places), twice), _mm256_set1_epi16(0x0100));
    const __m256i second_row = _mm256_slli_epi16(place, 3);  // the row's bit becomes the sign
    const __m256i row0 = _mm256_shuffle_epi8(LoadBoth(a, b), place);
    const __m256i row1 = _mm256_shuffle_epi8(LoadBoth(a + pitch, b + pitch), place);
    const __m256i row2 = _mm256_shuffle_epi8(LoadBoth(a + 2 * pitch, b + 2 * pitch), place);
    above = _mm256_blendv_epi8(row0, row1, second_row);
    below = _mm256_blendv_epi8(row1, row2, second_row);
  }

  static QXTOOLS_INLINE Pixels FromPairs(const std::uint8_t* pairs) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pairs));
  }

  static QXTOOLS_INLINE void Blend(Pixels above, Pixels below, const std::uint8_t* fx,
                                   const std::uint8_t* fy, std::uint8_t* result) {
    const __m256i twice =
        _mm256_setr_epi8(0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7,  //
                         8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13, 14, 14, 15, 15);
    const __m256i fx_twice = _mm256_shuffle_epi8(Load16Twice(fx), twice);
    const __m256i fy_high = _mm256_slli_epi16(_mm256_cvtepu8_epi16(Load16(fy)), 8);
    const __m256i values = BlendPairs(above, below, WeightsOf(fx_twice), fy_high);
    const __m256i packed = _mm256_packs_epi16(values, values);
    const __m128i bytes = _mm256_castsi256_si128(_mm256_permute4x64_epi64(packed, 0x08));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(result), _mm_xor_si128(bytes, _mm_set1_epi8(-128)));
  }

  static QXTOOLS_INLINE void BlendColours(const std::uint8_t* above, const std::uint8_t* below,
                                          const std::uint8_t* fx, const std::uint8_t* fy,
                                          std::uint8_t* result) {
    BlendColourGroup(above, below, fx, fy, result);
  }
};

}  // namespace

const RemapKernel kRemapAvx2 = {RemapGrey<Avx2>, RemapColour<Avx2>};

}  // namespace qx::utils::stereo
