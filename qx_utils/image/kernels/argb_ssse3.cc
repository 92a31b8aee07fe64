#include <tmmintrin.h>

#include "qx_utils/image/kernels/argb.h"

namespace qx::utils::image {
namespace {

constexpr std::size_t kStep = 16;  // pixels: three vectors in, four out
constexpr char kZero = -1;         // the shuffle writes 0 for an index below 0

template <bool kBgr>
__m128i Order() {
  return kBgr ? _mm_setr_epi8(kZero, 2, 1, 0, kZero, 5, 4, 3, kZero, 8, 7, 6, kZero, 11, 10, 9)
              : _mm_setr_epi8(kZero, 0, 1, 2, kZero, 3, 4, 5, kZero, 6, 7, 8, kZero, 9, 10, 11);
}

template <bool kStreaming>
void Store(std::uint8_t* dst, __m128i value) {
  if (kStreaming) {
    _mm_stream_si128(reinterpret_cast<__m128i*>(dst), value);
  } else {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), value);
  }
}

template <bool kStreaming>
void Widen(const std::uint8_t* src, std::uint8_t* dst, __m128i order) {
  const __m128i* in = reinterpret_cast<const __m128i*>(src);
  const __m128i a = _mm_loadu_si128(in);
  const __m128i b = _mm_loadu_si128(in + 1);
  const __m128i c = _mm_loadu_si128(in + 2);
  // Every four pixels are 12 bytes: brought to the front of a vector, then spread.
  Store<kStreaming>(dst, _mm_shuffle_epi8(a, order));
  Store<kStreaming>(dst + 16, _mm_shuffle_epi8(_mm_alignr_epi8(b, a, 12), order));
  Store<kStreaming>(dst + 32, _mm_shuffle_epi8(_mm_alignr_epi8(c, b, 8), order));
  Store<kStreaming>(dst + 48, _mm_shuffle_epi8(_mm_srli_si128(c, 4), order));
}

template <bool kBgr, bool kStreaming>
void Run(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels) {
  if (pixels < kStep) {
    (kBgr ? kArgbScalar.bgr : kArgbScalar.rgb)(src, dst, pixels);
    return;
  }
  const __m128i order = Order<kBgr>();
  const std::size_t last = pixels - kStep;  // the last step may redo pixels of the one before
  for (std::size_t i = 0; i < last; i += kStep) Widen<kStreaming>(src + 3 * i, dst + 4 * i, order);
  if (kStreaming) _mm_sfence();
  Widen<false>(src + 3 * last, dst + 4 * last, order);
}

}  // namespace

const ArgbRuns kArgbSsse3 = {Run<false, false>, Run<true, false>};
const ArgbRuns kArgbSsse3Streaming = {Run<false, true>, Run<true, true>};

}  // namespace qx::utils::image
