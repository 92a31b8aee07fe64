// Cost volume with AVX2: register tiles of 3 left pixels x 4 vectors of the right row.
//
// Values are widened to 16 bits, since the instruction for 8 bits saturates its sums of two
// products. A vector holds four channels of four columns: two partial sums for each of four
// disparities.
#include <immintrin.h>

#include "qx_utils/image/kernels/cost_volume_tiles-inl.h"

namespace qx::utils::image {
namespace {

QXTOOLS_INLINE __m256i Widen(const std::int8_t* from) {
  return _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
}

QXTOOLS_INLINE void StoreVector(void* to, __m256i value) {
  _mm256_storeu_si256(static_cast<__m256i*>(to), value);
}

// Keeps the compiler from loading a value anew for each of its uses.
QXTOOLS_INLINE __m256i InRegister(__m256i value) {
  __asm__("" : "+x"(value));
  return value;
}

// Scaled and leaky: the larger of the two is the leaky one below zero and the plain one above.
QXTOOLS_INLINE __m256 Leaky(__m256i sums, __m256 scale) {
  const __m256 value = _mm256_mul_ps(_mm256_cvtepi32_ps(sums), scale);
  return _mm256_max_ps(value, _mm256_mul_ps(value, _mm256_set1_ps(kCostVolumeLeak)));
}

// Costs as 16-bit integers, those of `low` in the lower half of each 128-bit part. Twice a cost is
// rounded down, and half of that up.
QXTOOLS_INLINE __m256i NarrowCosts(__m256i low, __m256i high, float scale) {
  const __m256 twice = _mm256_set1_ps(2.0F * scale);
  const __m256i a = _mm256_cvttps_epi32(_mm256_floor_ps(Leaky(low, twice)));
  const __m256i b = _mm256_cvttps_epi32(_mm256_floor_ps(Leaky(high, twice)));
  return _mm256_srai_epi16(_mm256_add_epi16(_mm256_packs_epi32(a, b), _mm256_set1_epi16(1)), 1);
}

// The integer whose low 8 bits are the cost, for all costs.
__m256i WideCost(__m256i sums, __m256 scale) {
  const __m256 leaky = Leaky(sums, scale);
  // The distance to the integer below is exact, or on the right side of a half (0 > q > -0.5).
  const __m256 below = _mm256_floor_ps(leaky);
  const __m256 up = _mm256_cmp_ps(_mm256_sub_ps(leaky, below), _mm256_set1_ps(0.5F), _CMP_GE_OQ);
  const __m256i rounded = _mm256_sub_epi32(_mm256_cvttps_epi32(below), _mm256_castps_si256(up));
  // What does not fit 32 bits became 0x80000000, whose low byte is right for all but these.
  const __m256 high = _mm256_cmp_ps(leaky, _mm256_set1_ps(2147483648.0F), _CMP_GE_OQ);
  return _mm256_and_si256(_mm256_or_si256(rounded, _mm256_castps_si256(high)),
                          _mm256_set1_epi32(0xFF));
}

struct Avx2 {
  using Vector = __m256i;
  using Sum = __m256i;
  static constexpr std::size_t kVectorBytes = 32, kGroup = 4, kElementBytes = 2, kStep = 4;
  static constexpr std::size_t kPixels = 3;  // 12 sums, 3 left values and a vector: 16 registers
  static constexpr std::size_t kMinVectors = 4, kMaxVectors = 4;
  // Of the smallest second cache of these processors, 256 KiB, the rest is for left row and costs.
  static constexpr std::size_t kPackedBudget = std::size_t{192} * 1024;
  static constexpr bool kPacksLeft = true;  // widening them in the tile costs 5 to 10 %
  static constexpr bool kPrefetches = true;
  // Twice a cost has to fit 16 bits, below 16384; the rest is room for the rounding of the bound.
  static constexpr float kNarrowLimit = 16000.0F;

  static void PackPixel(const std::int8_t* pixel, std::size_t channels, std::int8_t* to) {
    for (std::size_t c = 0; c < channels; c += 16) StoreVector(to + 2 * c, Widen(pixel + c));
  }

  static void PackVector(const std::int8_t* const (&pixel)[4], std::size_t channels,
                         std::size_t pitch, std::int8_t* to) {
    for (std::size_t c = 0; c < channels; c += 16, to += 4 * pitch) {
      const __m256i p0 = Widen(pixel[0] + c);
      const __m256i p1 = Widen(pixel[1] + c);
      const __m256i p2 = Widen(pixel[2] + c);
      const __m256i p3 = Widen(pixel[3] + c);
      const __m256i even01 = _mm256_unpacklo_epi64(p0, p1);
      const __m256i odd01 = _mm256_unpackhi_epi64(p0, p1);
      const __m256i even23 = _mm256_unpacklo_epi64(p2, p3);
      const __m256i odd23 = _mm256_unpackhi_epi64(p2, p3);
      StoreVector(to, _mm256_permute2x128_si256(even01, even23, 0x20));
      StoreVector(to + pitch, _mm256_permute2x128_si256(odd01, odd23, 0x20));
      StoreVector(to + 2 * pitch, _mm256_permute2x128_si256(even01, even23, 0x31));
      StoreVector(to + 3 * pitch, _mm256_permute2x128_si256(odd01, odd23, 0x31));
    }
  }

  QXTOOLS_INLINE static Sum Start(const std::int8_t* /*from*/) { return _mm256_setzero_si256(); }

  QXTOOLS_INLINE static Vector Load(const std::int8_t* from) {
    return InRegister(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(from)));
  }

  QXTOOLS_INLINE static Vector LoadLeft(const std::int8_t* from) {
    long long group;
    __builtin_memcpy(&group, from, sizeof(group));
    return InRegister(_mm256_set1_epi64x(group));
  }

  // The sum is tied to its register: GCC 12 spills sums of the plain intrinsic.
  template <std::size_t kNumber>
  QXTOOLS_INLINE static void MultiplyAdd(Vector left, Vector right, Sum& sum) {
    const __m256i products = _mm256_madd_epi16(left, right);
    __asm__("vpaddd %1, %0, %0" : "+x"(sum) : "x"(products));
  }

  // Low bytes of a pixel's costs as words: 0 1 4 5 8 9 12 13 and the rest in the other half.
  QXTOOLS_INLINE static __m256i PixelCosts(const Sum (&sums)[kMaxVectors], const Plan& plan) {
    const __m256i low = _mm256_hadd_epi32(sums[0], sums[1]);
    const __m256i high = _mm256_hadd_epi32(sums[2], sums[3]);
    if (plan.wide) {
      const __m256 scales = _mm256_set1_ps(plan.scale);
      return _mm256_packs_epi32(WideCost(low, scales), WideCost(high, scales));
    }
    return _mm256_and_si256(NarrowCosts(low, high, plan.scale), _mm256_set1_epi16(0xFF));
  }

  template <std::size_t kVectors>
  QXTOOLS_INLINE static void Store(const Plan& plan, std::size_t pixels,
                                   const Sum (&sums)[kPixels][kVectors], std::int8_t* cost,
                                   std::size_t step) {
    const __m256i last_costs = PixelCosts(sums[2], plan);
    const __m256i first = _mm256_packus_epi16(PixelCosts(sums[0], plan), PixelCosts(sums[1], plan));
    const __m256i last = _mm256_packus_epi16(last_costs, last_costs);
    const __m128i low = _mm256_castsi256_si128(first);
    const __m128i high = _mm256_extracti128_si256(first, 1);
    StoreCosts(_mm_unpacklo_epi16(low, high), plan.costs, cost);
    if (pixels < 2) return;
    StoreCosts(_mm_unpackhi_epi16(low, high), plan.costs, cost + step);
    if (pixels < 3) return;
    StoreCosts(_mm_unpacklo_epi16(_mm256_castsi256_si128(last), _mm256_extracti128_si256(last, 1)),
               plan.costs, cost + 2 * step);
  }
};

}  // namespace

const CostVolumeKernel kCostVolumeAvx2 = kKernel<Avx2>;

}  // namespace qx::utils::image
