// Cost volume with the dot products of AArch64: register tiles of 4 left pixels x 4 vectors of the
// right row. A vector holds four channels of four columns, its sums are four disparities.
#include <arm_neon.h>

#include "qx_utils/image/kernels/cost_volume_tiles-inl.h"

namespace qx::utils::image {
namespace {

QXTOOLS_INLINE int64x2_t Wide(int32x4_t value) { return vreinterpretq_s64_s32(value); }

// Scaled and leaky: the larger of the two is the leaky one below zero and the plain one above.
QXTOOLS_INLINE float32x4_t Leaky(int32x4_t sums, float scale) {
  const float32x4_t value = vmulq_n_f32(vcvtq_f32_s32(sums), scale);
  return vmaxq_f32(value, vmulq_n_f32(value, kCostVolumeLeak));
}

// The integers whose low 8 bits are the costs.
template <bool kWide>
QXTOOLS_INLINE int32x4_t Costs(int32x4_t sums, float scale) {
  const float32x4_t leaky = Leaky(sums, scale);
  if constexpr (kWide) {
    // The distance to the integer below is exact, or on the right side of a half (0 > q > -0.5).
    const float32x4_t below = vrndmq_f32(leaky);
    const uint32x4_t up = vcgeq_f32(vsubq_f32(leaky, below), vdupq_n_f32(0.5F));
    return vsubq_s32(vcvtq_s32_f32(below), vreinterpretq_s32_u32(up));
  }
  // Rounding takes ties away from zero. One step towards zero makes a negative tie none and,
  // below 2^22, carries nothing else across a tie; minus zero becomes NaN, which gives 0.
  const int32x4_t bits = vreinterpretq_s32_f32(leaky);
  return vcvtaq_s32_f32(vreinterpretq_f32_s32(vsraq_n_s32(bits, bits, 31)));
}

QXTOOLS_INLINE int8x16_t LowHalves(int32x4_t a, int32x4_t b) {
  return vreinterpretq_s8_s16(vuzp1q_s16(vreinterpretq_s16_s32(a), vreinterpretq_s16_s32(b)));
}

struct NeonDotprod {
  using Vector = int8x16_t;
  using Sum = int32x4_t;
  static constexpr std::size_t kVectorBytes = 16, kGroup = 4, kElementBytes = 1;
  // 16 sums, 4 left values and a vector: 21 of 32 registers. The rest is for the stores' factors.
  static constexpr std::size_t kPixels = 4, kMinVectors = 4, kMaxVectors = 4;
  static constexpr std::size_t kStep = 16;  // the instruction picks a K group of a left vector
  static constexpr std::size_t kPackedBudget = std::size_t{160} * 1024;  // of a cache of 256 KiB
  static constexpr bool kPacksLeft = false, kPrefetches = false;
  static constexpr float kNarrowLimit = 4e6F;  // just below 2^22, see Costs()

  QXTOOLS_INLINE static int32x4_t Channels(const std::int8_t* from) {
    return vreinterpretq_s32_s8(vld1q_s8(from));
  }

  static void PackVector(const std::int8_t* const (&pixel)[4], std::size_t channels,
                         std::size_t pitch, std::int8_t* to) {
    for (std::size_t c = 0; c < channels; c += 16, to += 4 * pitch) {
      const int32x4_t p0 = Channels(pixel[0] + c);
      const int32x4_t p1 = Channels(pixel[1] + c);
      const int32x4_t p2 = Channels(pixel[2] + c);
      const int32x4_t p3 = Channels(pixel[3] + c);
      const int64x2_t even01 = Wide(vtrn1q_s32(p0, p1));
      const int64x2_t odd01 = Wide(vtrn2q_s32(p0, p1));
      const int64x2_t even23 = Wide(vtrn1q_s32(p2, p3));
      const int64x2_t odd23 = Wide(vtrn2q_s32(p2, p3));
      vst1q_s8(to, vreinterpretq_s8_s64(vtrn1q_s64(even01, even23)));
      vst1q_s8(to + pitch, vreinterpretq_s8_s64(vtrn1q_s64(odd01, odd23)));
      vst1q_s8(to + 2 * pitch, vreinterpretq_s8_s64(vtrn2q_s64(even01, even23)));
      vst1q_s8(to + 3 * pitch, vreinterpretq_s8_s64(vtrn2q_s64(odd01, odd23)));
    }
  }

  QXTOOLS_INLINE static Sum Start(const std::int8_t* /*from*/) { return vdupq_n_s32(0); }
  QXTOOLS_INLINE static Vector Load(const std::int8_t* from) { return vld1q_s8(from); }
  QXTOOLS_INLINE static Vector LoadLeft(const std::int8_t* from) { return vld1q_s8(from); }

  template <std::size_t kNumber>
  QXTOOLS_INLINE static void MultiplyAdd(Vector left, Vector right, Sum& sum) {
    sum = vdotq_laneq_s32(sum, right, left, kNumber);
  }

  template <bool kWide, std::size_t kVectors>
  QXTOOLS_INLINE static void StorePixels(const Plan& plan, std::size_t pixels,
                                         const Sum (&sums)[kPixels][kVectors], std::int8_t* cost,
                                         std::size_t step) {
    Unroll<kPixels>([&](auto p) QXTOOLS_INLINE_BODY {
      if (p >= pixels) return;
      int32x4_t costs[kVectors];
      for (std::size_t v = 0; v < kVectors; ++v) costs[v] = Costs<kWide>(sums[p][v], plan.scale);
      const int8x16_t low = LowHalves(costs[0], costs[1]);
      const int8x16_t high = LowHalves(costs[2], costs[3]);
      StoreCosts(vuzp1q_s8(low, high), plan.costs, cost + p * step);
    });
  }

  template <std::size_t kVectors>
  QXTOOLS_INLINE static void Store(const Plan& plan, std::size_t pixels,
                                   const Sum (&sums)[kPixels][kVectors], std::int8_t* cost,
                                   std::size_t step) {
    plan.wide ? StorePixels<true>(plan, pixels, sums, cost, step)
              : StorePixels<false>(plan, pixels, sums, cost, step);
  }
};

}  // namespace

const CostVolumeKernel kCostVolumeNeonDotprod = kKernel<NeonDotprod>;

}  // namespace qx::utils::image
