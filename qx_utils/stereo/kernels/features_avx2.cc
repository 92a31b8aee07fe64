// Feature maps with AVX2: 16 pixels at a time.
//
// What is multiplied is twice the negative, sum4 - grey * 128, as that is one instruction with its
// operand in memory; the product is the same.
#include <immintrin.h>

#include "qx_utils/stereo/kernels/features_transpose-inl.h"

namespace qx::utils::stereo {
namespace {

struct Avx2 {
  using Vector = __m256i;
  using Bytes = __m256i;
  static constexpr std::size_t kLanes = 16;

  static QXTOOLS_INLINE Vector Load(const std::uint16_t* from) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
  }
  static QXTOOLS_INLINE Vector LoadBytes(const std::uint8_t* from) {
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
  }
  static QXTOOLS_INLINE void Store(std::uint16_t* to, Vector a) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), a);
  }
  static QXTOOLS_INLINE Vector Add(Vector a, Vector b) { return _mm256_add_epi16(a, b); }
  template <int kBits>
  static QXTOOLS_INLINE Vector Shift(Vector a) {
    return _mm256_slli_epi16(a, kBits);
  }
  static QXTOOLS_INLINE Vector Square(Vector a) { return _mm256_mullo_epi16(a, a); }
  static QXTOOLS_INLINE Vector Low(Vector a) {
    return _mm256_and_si256(a, _mm256_set1_epi16(0xFF));
  }
  static QXTOOLS_INLINE Vector High(Vector a) { return _mm256_srli_epi16(a, 8); }

  // Of eight pixels: sums in pairs (low, high) of the squares' bytes, and in pairs (sum, 0).
  static QXTOOLS_INLINE __m256i EightLengths(__m256i low_high, __m256i sum) {
    const __m256i weights = _mm256_set1_epi32(32 + (32 << 24));  // 32 * (low + 256 * high)
    const __m256i squares =
        _mm256_sub_epi32(_mm256_madd_epi16(low_high, weights), _mm256_madd_epi16(sum, sum));
    const __m256i spread = _mm256_add_epi32(squares, _mm256_set1_epi32(kFeatureNoise));
    const __m256 root = _mm256_sqrt_ps(_mm256_cvtepi32_ps(spread));
    return _mm256_cvttps_epi32(_mm256_div_ps(_mm256_set1_ps(-kFeatureLength), root));
  }
  static QXTOOLS_INLINE Vector MinusLengths(Vector sum, Vector low, Vector high) {
    const __m256i zero = _mm256_setzero_si256();
    return _mm256_packs_epi32(
        EightLengths(_mm256_unpacklo_epi16(low, high), _mm256_unpacklo_epi16(sum, zero)),
        EightLengths(_mm256_unpackhi_epi16(low, high), _mm256_unpackhi_epi16(sum, zero)));
  }

  static QXTOOLS_INLINE Vector Scale(const std::uint16_t* from, Vector sum4, Vector minus_lengths) {
    return _mm256_mulhrs_epi16(_mm256_sub_epi16(sum4, Load(from)), minus_lengths);
  }
  static QXTOOLS_INLINE Bytes Narrow(Vector a, Vector b) { return _mm256_packs_epi16(a, b); }
  template <int kUnit>
  static QXTOOLS_INLINE void Interleave(Bytes a, Bytes b, Bytes& low, Bytes& high) {
    if constexpr (kUnit == 1) {
      low = _mm256_unpacklo_epi8(a, b), high = _mm256_unpackhi_epi8(a, b);
    } else if constexpr (kUnit == 2) {
      low = _mm256_unpacklo_epi16(a, b), high = _mm256_unpackhi_epi16(a, b);
    } else if constexpr (kUnit == 4) {
      low = _mm256_unpacklo_epi32(a, b), high = _mm256_unpackhi_epi32(a, b);
    } else {
      low = _mm256_unpacklo_epi64(a, b), high = _mm256_unpackhi_epi64(a, b);
    }
  }
  static QXTOOLS_INLINE void StoreParts(std::int8_t* to, Bytes a) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm256_castsi256_si128(a));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to + 8 * kFeatureChannels),
                     _mm256_extracti128_si256(a, 1));
  }
  static QXTOOLS_INLINE void Describe(const std::uint16_t* const* neighbours, std::size_t x,
                                      Vector sum4, Vector minus_lengths, std::int8_t* to) {
    DescribeTransposed<Avx2>(neighbours, x, sum4, minus_lengths, to);
  }
};

}  // namespace

const FeatureKernel kFeaturesAvx2 = {DescribeRows<Avx2>};

}  // namespace qx::utils::stereo
