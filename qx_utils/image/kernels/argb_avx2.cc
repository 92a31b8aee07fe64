#include <immintrin.h>

#include "qx_utils/image/kernels/argb.h"

namespace qx::utils::image {
namespace {

constexpr std::size_t kStep = 32;  // pixels
constexpr std::size_t kLoad = 8;   // pixels of one vector
constexpr char kZero = -1;         // the shuffle writes 0 for an index below 0

// The upper half is loaded from byte 8, so that both halves end inside the 24 bytes of 8 pixels.
template <bool kBgr>
__m256i Order() {
  return kBgr ? _mm256_setr_epi8(kZero, 2, 1, 0, kZero, 5, 4, 3, kZero, 8, 7, 6, kZero, 11, 10, 9,
                                 kZero, 6, 5, 4, kZero, 9, 8, 7, kZero, 12, 11, 10, kZero, 15, 14,
                                 13)
              : _mm256_setr_epi8(kZero, 0, 1, 2, kZero, 3, 4, 5, kZero, 6, 7, 8, kZero, 9, 10, 11,
                                 kZero, 4, 5, 6, kZero, 7, 8, 9, kZero, 10, 11, 12, kZero, 13, 14,
                                 15);
}

template <bool kStreaming>
void Widen(const std::uint8_t* src, std::uint8_t* dst, __m256i order) {
  for (std::size_t i = 0; i < kStep; i += kLoad) {
    const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 3 * i));
    const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 3 * i + 8));
    const __m256i both = _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
    const __m256i value = _mm256_shuffle_epi8(both, order);
    __m256i* out = reinterpret_cast<__m256i*>(dst + 4 * i);
    if (kStreaming) {
      _mm256_stream_si256(out, value);
    } else {
      _mm256_storeu_si256(out, value);
    }
  }
}

template <bool kBgr, bool kStreaming>
void Run(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels) {
  if (pixels < kStep) {
    (kBgr ? kArgbScalar.bgr : kArgbScalar.rgb)(src, dst, pixels);
    return;
  }
  const __m256i order = Order<kBgr>();
  const std::size_t last = pixels - kStep;  // the last step may redo pixels of the one before
  for (std::size_t i = 0; i < last; i += kStep) Widen<kStreaming>(src + 3 * i, dst + 4 * i, order);
  if (kStreaming) _mm_sfence();
  Widen<false>(src + 3 * last, dst + 4 * last, order);
}

}  // namespace

const ArgbRuns kArgbAvx2 = {Run<false, false>, Run<true, false>};
const ArgbRuns kArgbAvx2Streaming = {Run<false, true>, Run<true, true>};

}  // namespace qx::utils::image
