#include <immintrin.h>

#include "qx_utils/image/kernels/argb.h"

namespace qx::utils::image {
namespace {

constexpr std::size_t kStep = 16;                      // pixels of one vector out
constexpr __mmask64 kColours = 0xEEEEEEEEEEEEEEEEULL;  // every byte but the alphas

// Byte j of the vector out comes from this byte of the vector in.
template <bool kBgr>
__m512i Order() {
  const __m512i pixel =
      _mm512_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30, 33, 36, 39, 42, 45);
  const __m512i first = _mm512_mullo_epi32(pixel, _mm512_set1_epi32(0x01010101));
  return _mm512_add_epi8(first, _mm512_set1_epi32(kBgr ? 0x00010200 : 0x02010000));
}

template <bool kStreaming>
void Widen(const std::uint8_t* src, std::uint8_t* dst, __m512i order) {
  // 32 and 16 bytes: a masked load of the 48 costs more than half of the speed in large pictures.
  const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src));
  const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 32));
  const __m512i in =
      _mm512_inserti64x4(_mm512_castsi256_si512(low), _mm256_castsi128_si256(high), 1);
  const __m512i value = _mm512_maskz_permutexvar_epi8(kColours, order, in);
  if (kStreaming) {
    _mm512_stream_si512(reinterpret_cast<__m512i*>(dst), value);
  } else {
    _mm512_storeu_si512(dst, value);
  }
}

// Fewer than 16 pixels, or none.
void WidenRest(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels, __m512i order) {
  const __m512i in = _mm512_maskz_loadu_epi8((1ULL << (3 * pixels)) - 1, src);
  _mm512_mask_storeu_epi8(dst, (1ULL << (4 * pixels)) - 1,
                          _mm512_maskz_permutexvar_epi8(kColours, order, in));
}

template <bool kBgr, bool kStreaming>
void Run(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels) {
  const __m512i order = Order<kBgr>();
  const std::size_t whole = pixels / kStep * kStep;
  for (std::size_t i = 0; i < whole; i += kStep) Widen<kStreaming>(src + 3 * i, dst + 4 * i, order);
  if (kStreaming) _mm_sfence();
  WidenRest(src + 3 * whole, dst + 4 * whole, pixels - whole, order);
}

}  // namespace

const ArgbRuns kArgbAvx512Vbmi = {Run<false, false>, Run<true, false>};
const ArgbRuns kArgbAvx512VbmiStreaming = {Run<false, true>, Run<true, true>};

}  // namespace qx::utils::image
