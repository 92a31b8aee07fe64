#include <tmmintrin.h>

#include "qx_utils/image/kernels/argb_steps-inl.h"

namespace qx::utils::image {
namespace {

constexpr char kZero = -1;  // the shuffle writes 0 for an index below 0

struct Ssse3 {
  static constexpr std::size_t kStep = 16;  // pixels: three vectors in, four out
  static constexpr bool kStreams = true;

  static void Fence() { _mm_sfence(); }

  // Spreads the four pixels at the front of a vector and stores them.
  template <bool kBgr, bool kStreaming>
  QXTOOLS_INLINE static void Store(std::uint8_t* dst, __m128i pixels) {
    const __m128i order =
        kBgr ? _mm_setr_epi8(kZero, 2, 1, 0, kZero, 5, 4, 3, kZero, 8, 7, 6, kZero, 11, 10, 9)
             : _mm_setr_epi8(kZero, 0, 1, 2, kZero, 3, 4, 5, kZero, 6, 7, 8, kZero, 9, 10, 11);
    const __m128i value = _mm_shuffle_epi8(pixels, order);
    __m128i* out = reinterpret_cast<__m128i*>(dst);
    kStreaming ? _mm_stream_si128(out, value) : _mm_storeu_si128(out, value);
  }

  template <bool kBgr, bool kStreaming>
  QXTOOLS_INLINE static void Widen(const std::uint8_t* src, std::uint8_t* dst) {
    const __m128i* in = reinterpret_cast<const __m128i*>(src);
    const __m128i a = _mm_loadu_si128(in);
    const __m128i b = _mm_loadu_si128(in + 1);
    const __m128i c = _mm_loadu_si128(in + 2);
    // Every four pixels are 12 bytes.
    Store<kBgr, kStreaming>(dst, a);
    Store<kBgr, kStreaming>(dst + 16, _mm_alignr_epi8(b, a, 12));
    Store<kBgr, kStreaming>(dst + 32, _mm_alignr_epi8(c, b, 8));
    Store<kBgr, kStreaming>(dst + 48, _mm_srli_si128(c, 4));
  }
};

}  // namespace

const ArgbKernel kArgbSsse3 = KernelOf<Ssse3>();

}  // namespace qx::utils::image
