// Cost volume with AVX-512 VNNI: register tiles of 4 left pixels x up to 4 vectors of the right
// row.
//
// K groups of 4 channels give 16 disparities a vector, one cost in each lane. With fewer than 32
// disparities no vector would be shared: then K groups of 16 channels give 4 disparities a vector,
// and four lanes are added up for each cost.
//
// The multiplication takes unsigned and signed bytes. The sign bits of the left values are flipped,
// which adds 128 to them, so sums start at -128 times the sum of the right values.
#include <immintrin.h>

#include "qx_utils/image/kernels/cost_volume_tiles-inl.h"

namespace qx::utils::image {
namespace {

constexpr std::size_t kShort = 4;  // channels of a K group
constexpr std::size_t kLong = 16;

// Keeps the compiler from loading a value anew for each of its uses.
QXTOOLS_INLINE __m512i InRegister(__m512i value) {
  __asm__("" : "+v"(value));
  return value;
}

// 32 channels of each.
QXTOOLS_INLINE __m512i TwoPixels(const std::int8_t* low, const std::int8_t* high) {
  const __m256i first = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(low));
  const __m256i second = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(high));
  return _mm512_inserti64x4(_mm512_castsi256_si512(first), second, 1);
}

// Turns four pixels x four short K groups into K groups of pixels, in each 128-bit part by itself.
QXTOOLS_INLINE void Transpose(const __m512i (&in)[4], __m512i (&out)[4]) {
  const __m512i ab_low = _mm512_unpacklo_epi32(in[0], in[1]);
  const __m512i ab_high = _mm512_unpackhi_epi32(in[0], in[1]);
  const __m512i cd_low = _mm512_unpacklo_epi32(in[2], in[3]);
  const __m512i cd_high = _mm512_unpackhi_epi32(in[2], in[3]);
  out[0] = _mm512_unpacklo_epi64(ab_low, cd_low);
  out[1] = _mm512_unpackhi_epi64(ab_low, cd_low);
  out[2] = _mm512_unpacklo_epi64(ab_high, cd_high);
  out[3] = _mm512_unpackhi_epi64(ab_high, cd_high);
}

// Stores the even parts of both as a vector of one K group, the odd ones as that of another one
// `distance` bytes further, and adds 128 times their values to the sums.
QXTOOLS_INLINE void StoreGroups(__m512i low, __m512i high, std::int8_t* to, std::size_t distance,
                                __m512i (&sums)[2]) {
  const __m512i even = _mm512_shuffle_i32x4(low, high, 0x88);
  const __m512i odd = _mm512_shuffle_i32x4(low, high, 0xDD);
  _mm512_store_si512(to, even);
  _mm512_store_si512(to + distance, odd);
  sums[0] = _mm512_dpbusd_epi32(sums[0], _mm512_set1_epi8(-128), even);
  sums[1] = _mm512_dpbusd_epi32(sums[1], _mm512_set1_epi8(-128), odd);
}

// Scaled and leaky: the larger of the two is the leaky one below zero and the plain one above.
QXTOOLS_INLINE __m512 Leaky(__m512i sums, __m512 scale) {
  const __m512 value = _mm512_mul_ps(_mm512_cvtepi32_ps(sums), scale);
  return _mm512_max_ps(value, _mm512_mul_ps(value, _mm512_set1_ps(kCostVolumeLeak)));
}

constexpr int kDown = _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC;

// Rounded costs in byte 1 of the lanes: added to 1.5 * 2^15, a float's lowest eight bits are a
// fraction, and one half added while rounding down is exact for all floats.
QXTOOLS_INLINE __m512i NarrowCosts(__m512i sums, __m512 scale) {
  return _mm512_castps_si512(
      _mm512_add_round_ps(Leaky(sums, scale), _mm512_set1_ps(49152.5F), kDown));
}

// The same for all costs. What does not fit 32 bits becomes 0x80000000, whose low byte is right
// for all but positive values.
__m512i WideCosts(__m512i sums, __m512 scale) {
  const __m512 leaky = Leaky(sums, scale);
  const __m512 moved = _mm512_add_round_ps(leaky, _mm512_set1_ps(0.5F), kDown);
  const __m512i rounded = _mm512_cvt_roundps_epi32(moved, kDown);
  const __mmask16 high = _mm512_cmp_ps_mask(leaky, _mm512_set1_ps(2147483648.0F), _CMP_GE_OQ);
  return _mm512_mask_mov_epi32(_mm512_slli_epi32(rounded, 8), high, _mm512_set1_epi32(0xFF00));
}

QXTOOLS_INLINE __m512i Costs(__m512i sums, const Plan& plan) {
  const __m512 scale = _mm512_set1_ps(plan.scale);
  return plan.wide ? WideCosts(sums, scale) : NarrowCosts(sums, scale);
}

// Gathers byte 1 of the lanes of up to four vectors. In lane order, those of a vector's 128-bit
// part p come to dword p of part m, m being the number of the vector.
template <std::size_t kCount>
QXTOOLS_INLINE __m512i Gather(const __m512i (&v)[kCount]) {
  const __m512i pick = _mm512_set1_epi32(0x0D090501);
  __m512i bytes = _mm512_shuffle_epi8(v[0], pick);
  if constexpr (kCount > 1) bytes = _mm512_mask_shuffle_epi8(bytes, 0x00F000F000F000F0, v[1], pick);
  if constexpr (kCount > 2) bytes = _mm512_mask_shuffle_epi8(bytes, 0x0F000F000F000F00, v[2], pick);
  if constexpr (kCount > 3) bytes = _mm512_mask_shuffle_epi8(bytes, 0xF000F000F000F000, v[3], pick);
  const __m512i order = _mm512_set_epi32(15, 11, 7, 3, 14, 10, 6, 2, 13, 9, 5, 1, 12, 8, 4, 0);
  return _mm512_permutexvar_epi32(order, bytes);
}

// Adds up the four lanes of each 128-bit part: those of vector m give dword m.
template <std::size_t kVectors>
QXTOOLS_INLINE __m512i AddLanes(const __m512i (&sums)[kVectors]) {
  const auto pair = [&](std::size_t v) QXTOOLS_INLINE_BODY {
    const __m512i a = sums[Smaller(v, kVectors - 1)], b = sums[Smaller(v + 1, kVectors - 1)];
    return _mm512_add_epi32(_mm512_unpacklo_epi32(a, b), _mm512_unpackhi_epi32(a, b));
  };
  const __m512i ab = pair(0), cd = pair(2);
  return _mm512_add_epi32(_mm512_unpacklo_epi64(ab, cd), _mm512_unpackhi_epi64(ab, cd));
}

template <std::size_t kChannels>
struct Avx512Vnni {
  using Vector = __m512i;
  using Sum = __m512i;
  static constexpr std::size_t kVectorBytes = 64, kGroup = kChannels, kElementBytes = 1;
  static constexpr std::size_t kPixels = 4;  // 5 are slower, see docs/cost-volume.md
  static constexpr std::size_t kMinVectors = kGroup == kLong ? 1 : 2, kMaxVectors = 4;
  static constexpr std::size_t kStep = kGroup;
  // As for AVX2; the second cache of these processors has 512 KiB or more.
  static constexpr std::size_t kPackedBudget = std::size_t{192} * 1024;
  static constexpr bool kPacksLeft = false, kPrefetches = true;
  // The sum with 1.5 * 2^15 has to stay between 2^15 and 2^16, so costs below 2^14; the rest is
  // room for the rounding of the bound.
  static constexpr float kNarrowLimit = 16000.0F;
  static constexpr std::size_t kColumns = kVectorBytes / kGroup;

  static void PackVector(const std::int8_t* const (&pixel)[kColumns], std::size_t channels,
                         std::size_t pitch, std::int8_t* to) {
    __m512i sums[2] = {_mm512_setzero_si512(), _mm512_setzero_si512()};
    for (std::size_t c = 0; c < channels; c += 32, to += 32 / kGroup * pitch) {
      if constexpr (kGroup == kLong) {
        StoreGroups(TwoPixels(pixel[0] + c, pixel[1] + c), TwoPixels(pixel[2] + c, pixel[3] + c),
                    to, pitch, sums);
      } else {
        __m512i in[2][4], out[2][4];
        Unroll<8>([&](auto t) QXTOOLS_INLINE_BODY {
          const std::size_t first = t / 4 * 8 + t % 4;
          in[t / 4][t % 4] = TwoPixels(pixel[first] + c, pixel[first + 4] + c);
        });
        Transpose(in[0], out[0]);
        Transpose(in[1], out[1]);
        Unroll<4>([&](auto k) QXTOOLS_INLINE_BODY {
          StoreGroups(out[0][k], out[1][k], to + k * pitch, 4 * pitch, sums);
        });
      }
    }
    const __m512i sum = _mm512_add_epi32(sums[0], sums[1]);
    _mm512_store_si512(to, _mm512_sub_epi32(_mm512_setzero_si512(), sum));
  }

  QXTOOLS_INLINE static Sum Start(const std::int8_t* from) { return _mm512_loadu_si512(from); }

  QXTOOLS_INLINE static Vector Load(const std::int8_t* from) {
    return InRegister(_mm512_loadu_si512(from));
  }

  // With the sign bits flipped.
  QXTOOLS_INLINE static Vector LoadLeft(const std::int8_t* from) {
    const __m512i flip = _mm512_set1_epi8(-128);
    if constexpr (kGroup == kLong) {
      const __m128i group = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
      return InRegister(_mm512_xor_si512(_mm512_broadcast_i32x4(group), flip));
    } else {
      std::int32_t group;
      __builtin_memcpy(&group, from, sizeof(group));
      return InRegister(_mm512_xor_si512(_mm512_set1_epi32(group), flip));
    }
  }

  // As _mm512_dpbusd_epi32(), with the sum tied to its register: GCC 12 copies and spills all sums
  // around that intrinsic, which costs a third of the speed.
  template <std::size_t kNumber>
  QXTOOLS_INLINE static void MultiplyAdd(Vector left, Vector right, Sum& sum) {
    __asm__("vpdpbusd %2, %1, %0" : "+v"(sum) : "v"(left), "v"(right));
  }

  template <std::size_t kVectors>
  QXTOOLS_INLINE static void Store(const Plan& plan, std::size_t pixels,
                                   const Sum (&sums)[kPixels][kVectors], std::int8_t* cost,
                                   std::size_t step) {
    if constexpr (kGroup == kLong) {
      StoreParts(plan, pixels, sums, cost, step);
    } else {
      Unroll<kPixels>([&](auto p) QXTOOLS_INLINE_BODY {
        if (p < pixels) StoreLanes(plan, sums[p], cost + p * step);
      });
    }
  }

  // Short K groups: a vector's lanes are the costs of 16 disparities.
  template <std::size_t kVectors>
  QXTOOLS_INLINE static void StoreLanes(const Plan& plan, const Sum (&sums)[kVectors],
                                        std::int8_t* cost) {
    __m512i costs[kVectors];
    for (std::size_t v = 0; v < kVectors; ++v) costs[v] = Costs(sums[v], plan);
    const __m512i bytes = Gather(costs);
    __builtin_memcpy(cost, &bytes, kVectors * kColumns);
  }

  // Long K groups: a vector's 128-bit parts are the costs of 4 disparities.
  template <std::size_t kVectors>
  QXTOOLS_INLINE static void StoreParts(const Plan& plan, std::size_t pixels,
                                        const Sum (&sums)[kPixels][kVectors], std::int8_t* cost,
                                        std::size_t step) {
    __m512i costs[kPixels];
    for (std::size_t p = 0; p < kPixels; ++p) costs[p] = Costs(AddLanes(sums[p]), plan);
    const __m512i by_disparity = _mm512_set4_epi32(0x0F0B0703, 0x0E0A0602, 0x0D090501, 0x0C080400);
    const __m512i bytes = _mm512_shuffle_epi8(Gather(costs), by_disparity);
    Unroll<kPixels>([&](auto p) QXTOOLS_INLINE_BODY {
      if (p >= pixels) return;
      StoreCosts(_mm512_extracti32x4_epi32(bytes, p), plan.costs, cost + p * step);
    });
  }
};

// Long K groups cost about a quarter more, but come in smaller steps of disparities.
bool UsesLongGroups(const CostVolumeJob& job) {
  const std::size_t costs = Smaller(job.disparities, job.width);
  const std::size_t band = 16 * VectorsOf<Avx512Vnni<kShort>>(job);
  return job.disparities < band || RoundUp(costs, band) * 4 > RoundUp(costs, 16) * 5;
}

}  // namespace

const CostVolumeKernel kCostVolumeAvx512Vnni =
    kEitherKernel<Avx512Vnni<kShort>, Avx512Vnni<kLong>, UsesLongGroups>;

}  // namespace qx::utils::image
