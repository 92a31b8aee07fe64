// Semi-global matching with AVX2: 32 path costs to a vector.
#include <immintrin.h>

#include "qx_utils/stereo/kernels/semi_global-inl.h"

namespace qx::utils::stereo {
namespace {

// Keeps a count of trailing zeros defined where nothing is set; the count is not used then.
constexpr std::uint64_t kTopBit = std::uint64_t{1} << 63;

struct Avx2 {
  using Vector = __m256i;
  using Quad = __m256i;
  using Splat = std::uint32_t;
  using Counts = Numbers<1, 2, 3, 4, 5, 6, 7, 8>;
  static constexpr std::size_t kBytes = 32, kTail = 1;

  QXTOOLS_INLINE static Vector Load(const void* from) {
    return _mm256_loadu_si256(static_cast<const __m256i*>(from));
  }
  QXTOOLS_INLINE static void Store(void* to, Vector v) {
    _mm256_storeu_si256(static_cast<__m256i*>(to), v);
  }
  QXTOOLS_INLINE static Vector Set(std::uint8_t byte) {
    return _mm256_set1_epi8(static_cast<char>(byte));
  }
  QXTOOLS_INLINE static Vector Broadcast(const Splat* from) {
    return _mm256_set1_epi32(static_cast<int>(*from));
  }
  QXTOOLS_INLINE static void Splatter(const std::uint8_t* bytes, std::size_t count, Splat* to) {
    const Vector four_times = _mm256_setr_epi32(0, 0x01010101, 0x02020202, 0x03030303, 0x04040404,
                                                0x05050505, 0x06060606, 0x07070707);
    for (std::size_t i = 0; i < count; i += 8) {
      long long eight;
      __builtin_memcpy(&eight, bytes + i, sizeof(eight));
      Store(to + i, _mm256_shuffle_epi8(_mm256_set1_epi64x(eight), four_times));
    }
  }
  QXTOOLS_INLINE static Vector Min(Vector a, Vector b) { return _mm256_min_epu8(a, b); }
  QXTOOLS_INLINE static Vector Max(Vector a, Vector b) { return _mm256_max_epu8(a, b); }
  QXTOOLS_INLINE static Vector Add(Vector a, Vector b) { return _mm256_add_epi8(a, b); }
  QXTOOLS_INLINE static Vector Subtract(Vector a, Vector b) { return _mm256_sub_epi8(a, b); }
  QXTOOLS_INLINE static Vector AddSaturated(Vector a, Vector b) { return _mm256_adds_epu8(a, b); }
  QXTOOLS_INLINE static Vector Average(Vector a, Vector b) { return _mm256_avg_epu8(a, b); }
  QXTOOLS_INLINE static Vector Blend(Vector mask, Vector set, Vector clear) {
    return _mm256_blendv_epi8(clear, set, mask);
  }

  // 127 - correlation is the correlation with all bits but the sign changed, as an unsigned byte.
  QXTOOLS_INLINE static Vector Cost(Vector correlation) {
    return Average(_mm256_xor_si256(correlation, Set(0x7F)), _mm256_setzero_si256());
  }

  QXTOOLS_INLINE static Vector Up(Vector before, Vector v) {
    return _mm256_alignr_epi8(v, _mm256_permute2x128_si256(before, v, 0x21), 15);
  }
  QXTOOLS_INLINE static Vector Down(Vector v, Vector after) {
    return _mm256_alignr_epi8(_mm256_permute2x128_si256(v, after, 0x21), v, 1);
  }

  QXTOOLS_INLINE static Vector Prices(Vector a, Vector b, const std::uint8_t* table) {
    const Vector difference = _mm256_or_si256(_mm256_subs_epu8(a, b), _mm256_subs_epu8(b, a));
    // The bits that 16-bit lanes shift in from their neighbours are masked.
    const Vector steps = _mm256_and_si256(_mm256_srli_epi16(difference, 2), Set(0x3F));
    const __m128i prices = _mm_loadu_si128(reinterpret_cast<const __m128i*>(table));
    return _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(prices), Min(steps, Set(15)));
  }

  // Four minima are found together, by halves: each step leaves half of every vector's lanes.
  QXTOOLS_INLINE static Quad Minima(Vector a, Vector b, Vector c, Vector d) {
    const Vector ab = Min(_mm256_unpacklo_epi32(a, b), _mm256_unpackhi_epi32(a, b));
    const Vector cd = Min(_mm256_unpacklo_epi32(c, d), _mm256_unpackhi_epi32(c, d));
    const Vector all = Min(_mm256_unpacklo_epi64(ab, cd), _mm256_unpackhi_epi64(ab, cd));
    // Both halves continue alike, so that the first minimum need not cross them.
    Vector quad = Min(all, _mm256_permute2x128_si256(all, all, 0x01));
    quad = Min(quad, _mm256_srli_epi32(quad, 16));
    return Min(quad, _mm256_srli_epi32(quad, 8));
  }
  QXTOOLS_INLINE static void StoreMinima(PathMinima* to, Quad quad) {
    const __m128i low = _mm256_castsi256_si128(quad);
    *to = static_cast<PathMinima>(
        _mm_cvtsi128_si32(_mm_shuffle_epi8(low, _mm_set1_epi32(0x0C080400))));
  }
  QXTOOLS_INLINE static Vector BroadcastFirst(Quad quad) {
    return _mm256_shuffle_epi8(quad, _mm256_setzero_si256());
  }

  QXTOOLS_INLINE static __m128i LeastOf(Vector v) {
    const __m128i half = _mm_min_epu8(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    return _mm_minpos_epu16(_mm_min_epu8(half, _mm_srli_epi16(half, 8)));
  }
  QXTOOLS_INLINE static std::uint8_t Least(Vector v) {
    return static_cast<std::uint8_t>(_mm_cvtsi128_si32(LeastOf(v)));
  }

  // Bits of two vectors' lanes.
  QXTOOLS_INLINE static std::uint64_t Equal(Vector low, Vector high, Vector value) {
    const auto bits = [&](Vector v) QXTOOLS_INLINE_BODY {
      return static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(v, value)));
    };
    return std::uint64_t{bits(high)} << 32 | bits(low);
  }

  template <std::size_t kVectors>
  QXTOOLS_INLINE static std::size_t FirstLeast(const Vector (&cells)[kVectors], Vector minima) {
    const Vector least = _mm256_broadcastb_epi8(LeastOf(minima));
    std::size_t first = 0;
    constexpr std::size_t kPairs = (kVectors + 1) / 2;
    Unroll<kPairs>([&](auto n) QXTOOLS_INLINE_BODY {
      constexpr std::size_t kLow = 2 * (kPairs - 1 - n);
      constexpr std::size_t kHigh = kLow + 1 < kVectors ? kLow + 1 : kLow;
      const std::uint64_t equal = Equal(cells[kLow], cells[kHigh], least);
      const auto at = kLow * kBytes + static_cast<std::size_t>(__builtin_ctzll(equal | kTopBit));
      first = equal != 0 ? at : first;
    });
    return first;
  }
};

}  // namespace

const SemiGlobalKernel kSemiGlobalAvx2 = kKernelOf<Avx2>;

}  // namespace qx::utils::stereo
