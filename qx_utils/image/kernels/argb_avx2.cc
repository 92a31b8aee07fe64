#include <immintrin.h>

#include "qx_utils/image/kernels/argb_steps-inl.h"

namespace qx::utils::image {
namespace {

constexpr char kZero = -1;  // the shuffle writes 0 for an index below 0

struct Avx2 {
  static constexpr std::size_t kStep = 32;   // pixels
  static constexpr std::size_t kVector = 8;  // pixels
  static constexpr bool kStreams = true;

  static void Fence() { _mm_sfence(); }

  // The upper half is loaded from byte 8, so that both halves end inside the 24 bytes of 8 pixels.
  template <bool kBgr>
  QXTOOLS_INLINE static __m256i Order() {
    return kBgr ? _mm256_setr_epi8(kZero, 2, 1, 0, kZero, 5, 4, 3, kZero, 8, 7, 6, kZero, 11, 10, 9,
                                   kZero, 6, 5, 4, kZero, 9, 8, 7, kZero, 12, 11, 10, kZero, 15, 14,
                                   13)
                : _mm256_setr_epi8(kZero, 0, 1, 2, kZero, 3, 4, 5, kZero, 6, 7, 8, kZero, 9, 10, 11,
                                   kZero, 4, 5, 6, kZero, 7, 8, 9, kZero, 10, 11, 12, kZero, 13, 14,
                                   15);
  }

  template <bool kBgr, bool kStreaming>
  QXTOOLS_INLINE static void Widen(const std::uint8_t* src, std::uint8_t* dst) {
    for (std::size_t i = 0; i < kStep; i += kVector) {
      const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 3 * i));
      const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 3 * i + 8));
      const __m256i both = _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
      const __m256i value = _mm256_shuffle_epi8(both, Order<kBgr>());
      __m256i* out = reinterpret_cast<__m256i*>(dst + 4 * i);
      kStreaming ? _mm256_stream_si256(out, value) : _mm256_storeu_si256(out, value);
    }
  }
};

}  // namespace

const ArgbKernel kArgbAvx2 = KernelOf<Avx2>();

}  // namespace qx::utils::image
