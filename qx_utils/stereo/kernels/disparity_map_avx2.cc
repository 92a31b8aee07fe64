// Medians with AVX2, 16 pixels at a time.
#include <immintrin.h>

#include "qx_utils/stereo/kernels/disparity_median-inl.h"

namespace qx::utils::stereo {
namespace {

struct Avx2 {
  using Vector = __m256i;
  static constexpr std::size_t kLanes = 16;

  static QXTOOLS_INLINE Vector Load(const std::uint16_t* from) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
  }
  static QXTOOLS_INLINE void Store(std::uint16_t* to, Vector a) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), a);
  }
  static QXTOOLS_INLINE Vector Min(Vector a, Vector b) { return _mm256_min_epu16(a, b); }
  static QXTOOLS_INLINE Vector Max(Vector a, Vector b) { return _mm256_max_epu16(a, b); }
  static QXTOOLS_INLINE Vector Equal(Vector a, Vector b) { return _mm256_cmpeq_epi16(a, b); }
  static QXTOOLS_INLINE Vector And(Vector a, Vector b) { return _mm256_and_si256(a, b); }
  static QXTOOLS_INLINE Vector Clear(Vector a, Vector bits) { return _mm256_andnot_si256(bits, a); }
  static QXTOOLS_INLINE Vector Xor(Vector a, Vector b) { return _mm256_xor_si256(a, b); }
};

}  // namespace

const MedianKernel kMedianAvx2 = {MedianOfSquares<Avx2, 1>, MedianOfSquares<Avx2, 2>};

}  // namespace qx::utils::stereo
