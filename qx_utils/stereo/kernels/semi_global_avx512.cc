// Semi-global matching with AVX-512 F and BW: 64 path costs to a vector.
#include <immintrin.h>

#include "qx_utils/stereo/kernels/semi_global-inl.h"

namespace qx::utils::stereo {
namespace {

// Keeps a count of trailing zeros defined where nothing is set; the count is not used then.
constexpr std::uint64_t kTopBit = std::uint64_t{1} << 63;

struct Avx512 {
  using Vector = __m512i;
  using Quad = __m128i;
  using Splat = std::uint32_t;
  using Counts = Numbers<1, 2, 3, 4>;
  static constexpr std::size_t kBytes = 64, kTail = 1;

  QXTOOLS_INLINE static Vector Load(const void* from) { return _mm512_loadu_si512(from); }
  QXTOOLS_INLINE static void Store(void* to, Vector v) { _mm512_storeu_si512(to, v); }
  QXTOOLS_INLINE static Vector Set(std::uint8_t byte) {
    return _mm512_set1_epi8(static_cast<char>(byte));
  }
  QXTOOLS_INLINE static Vector Broadcast(const Splat* from) {
    return _mm512_set1_epi32(static_cast<int>(*from));
  }
  QXTOOLS_INLINE static void Splatter(const std::uint8_t* bytes, std::size_t count, Splat* to) {
    const Vector four_times =
        _mm512_setr_epi32(0, 0x01010101, 0x02020202, 0x03030303, 0x04040404, 0x05050505, 0x06060606,
                          0x07070707, 0x08080808, 0x09090909, 0x0A0A0A0A, 0x0B0B0B0B, 0x0C0C0C0C,
                          0x0D0D0D0D, 0x0E0E0E0E, 0x0F0F0F0F);
    for (std::size_t i = 0; i < count; i += 16) {
      const __m128i sixteen = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
      Store(to + i, _mm512_shuffle_epi8(_mm512_broadcast_i32x4(sixteen), four_times));
    }
  }
  QXTOOLS_INLINE static Vector Min(Vector a, Vector b) { return _mm512_min_epu8(a, b); }
  QXTOOLS_INLINE static Vector Max(Vector a, Vector b) { return _mm512_max_epu8(a, b); }
  QXTOOLS_INLINE static Vector Add(Vector a, Vector b) { return _mm512_add_epi8(a, b); }
  QXTOOLS_INLINE static Vector Subtract(Vector a, Vector b) { return _mm512_sub_epi8(a, b); }
  QXTOOLS_INLINE static Vector AddSaturated(Vector a, Vector b) { return _mm512_adds_epu8(a, b); }
  QXTOOLS_INLINE static Vector Average(Vector a, Vector b) { return _mm512_avg_epu8(a, b); }
  QXTOOLS_INLINE static Vector Blend(Vector mask, Vector set, Vector clear) {
    return _mm512_mask_blend_epi8(_mm512_movepi8_mask(mask), clear, set);
  }

  // 127 - correlation is the correlation with all bits but the sign changed, as an unsigned byte.
  QXTOOLS_INLINE static Vector Cost(Vector correlation) {
    return Average(_mm512_xor_si512(correlation, Set(0x7F)), _mm512_setzero_si512());
  }

  QXTOOLS_INLINE static Vector Up(Vector before, Vector v) {
    return _mm512_alignr_epi8(v, _mm512_alignr_epi32(v, before, 12), 15);
  }
  QXTOOLS_INLINE static Vector Down(Vector v, Vector after) {
    return _mm512_alignr_epi8(_mm512_alignr_epi32(after, v, 4), v, 1);
  }

  QXTOOLS_INLINE static Vector Prices(Vector a, Vector b, const std::uint8_t* table) {
    const Vector difference = _mm512_or_si512(_mm512_subs_epu8(a, b), _mm512_subs_epu8(b, a));
    // The bits that 16-bit lanes shift in from their neighbours are masked.
    const Vector steps = _mm512_and_si512(_mm512_srli_epi16(difference, 2), Set(0x3F));
    const __m128i prices = _mm_loadu_si128(reinterpret_cast<const __m128i*>(table));
    return _mm512_shuffle_epi8(_mm512_broadcast_i32x4(prices), Min(steps, Set(15)));
  }

  QXTOOLS_INLINE static __m128i Quarter(Vector v) {
    const __m256i half =
        _mm256_min_epu8(_mm512_castsi512_si256(v), _mm512_extracti64x4_epi64(v, 1));
    return _mm_min_epu8(_mm256_castsi256_si128(half), _mm256_extracti128_si256(half, 1));
  }

  // Four minima are found together, by halves: each step leaves half of every vector's lanes.
  QXTOOLS_INLINE static Quad Minima(Vector a, Vector b, Vector c, Vector d) {
    const Vector ab = Min(_mm512_unpacklo_epi32(a, b), _mm512_unpackhi_epi32(a, b));
    const Vector cd = Min(_mm512_unpacklo_epi32(c, d), _mm512_unpackhi_epi32(c, d));
    __m128i quad = Quarter(Min(_mm512_unpacklo_epi64(ab, cd), _mm512_unpackhi_epi64(ab, cd)));
    quad = _mm_min_epu8(quad, _mm_srli_epi32(quad, 16));
    quad = _mm_min_epu8(quad, _mm_srli_epi32(quad, 8));
    return _mm_shuffle_epi8(quad, _mm_set1_epi32(0x0C080400));
  }
  QXTOOLS_INLINE static void StoreMinima(PathMinima* to, Quad quad) {
    *to = static_cast<PathMinima>(_mm_cvtsi128_si32(quad));
  }
  QXTOOLS_INLINE static Vector BroadcastFirst(Quad quad) { return _mm512_broadcastb_epi8(quad); }

  QXTOOLS_INLINE static __m128i LeastOf(Vector v) {
    const __m128i quarter = Quarter(v);
    return _mm_minpos_epu16(_mm_min_epu8(quarter, _mm_srli_epi16(quarter, 8)));
  }
  QXTOOLS_INLINE static std::uint8_t Least(Vector v) {
    return static_cast<std::uint8_t>(_mm_cvtsi128_si32(LeastOf(v)));
  }

  template <std::size_t kVectors>
  QXTOOLS_INLINE static std::size_t FirstLeast(const Vector (&cells)[kVectors], Vector minima) {
    const Vector least = _mm512_broadcastb_epi8(LeastOf(minima));
    std::size_t first = 0;
    Unroll<kVectors>([&](auto n) QXTOOLS_INLINE_BODY {
      constexpr std::size_t kVector = kVectors - 1 - n;
      const std::uint64_t equal = _mm512_cmpeq_epi8_mask(cells[kVector], least);
      const auto at = kVector * kBytes + static_cast<std::size_t>(__builtin_ctzll(equal | kTopBit));
      first = equal != 0 ? at : first;
    });
    return first;
  }
};

}  // namespace

const SemiGlobalKernel kSemiGlobalAvx512 = kKernelOf<Avx512>;

}  // namespace qx::utils::stereo
