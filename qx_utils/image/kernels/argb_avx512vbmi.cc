#include <immintrin.h>

#include "qx_utils/image/kernels/argb_steps-inl.h"

namespace qx::utils::image {
namespace {

struct Avx512Vbmi {
  static constexpr std::size_t kStep = 16;  // pixels of one vector out
  static constexpr bool kStreams = true;

  static void Fence() { _mm_sfence(); }

  // Byte j of the vector out comes from this byte of the vector in.
  template <bool kBgr>
  QXTOOLS_INLINE static __m512i Order() {
    const __m512i pixel =
        _mm512_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30, 33, 36, 39, 42, 45);
    const __m512i first = _mm512_mullo_epi32(pixel, _mm512_set1_epi32(0x01010101));
    return _mm512_add_epi8(first, _mm512_set1_epi32(kBgr ? 0x00010200 : 0x02010000));
  }

  template <bool kBgr, bool kStreaming>
  QXTOOLS_INLINE static void Widen(const std::uint8_t* src, std::uint8_t* dst) {
    // 32 and 16 bytes: a masked load of the 48 costs more than half of the speed in large pictures.
    const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src));
    const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 32));
    const __m512i in =
        _mm512_inserti64x4(_mm512_castsi256_si512(low), _mm256_castsi128_si256(high), 1);
    constexpr __mmask64 kColours = 0xEEEEEEEEEEEEEEEEULL;  // every byte but the alphas
    const __m512i value = _mm512_maskz_permutexvar_epi8(kColours, Order<kBgr>(), in);
    __m512i* out = reinterpret_cast<__m512i*>(dst);
    kStreaming ? _mm512_stream_si512(out, value) : _mm512_storeu_si512(out, value);
  }
};

}  // namespace

const ArgbKernel kArgbAvx512Vbmi = KernelOf<Avx512Vbmi>();

}  // namespace qx::utils::image
