// Feature maps with NEON: 8 pixels at a time.
#include <arm_neon.h>

#include "qx_utils/stereo/kernels/features_transpose-inl.h"

namespace qx::utils::stereo {
namespace {

struct Neon {
  using Vector = uint16x8_t;
  using Bytes = int8x16_t;
  static constexpr std::size_t kLanes = 8;

  static QXTOOLS_INLINE Vector Load(const std::uint16_t* from) { return vld1q_u16(from); }
  static QXTOOLS_INLINE Vector LoadBytes(const std::uint8_t* from) {
    return vmovl_u8(vld1_u8(from));
  }
  static QXTOOLS_INLINE void Store(std::uint16_t* to, Vector a) { vst1q_u16(to, a); }
  static QXTOOLS_INLINE Vector Add(Vector a, Vector b) { return vaddq_u16(a, b); }
  template <int kBits>
  static QXTOOLS_INLINE Vector Shift(Vector a) {
    return vshlq_n_u16(a, kBits);
  }
  static QXTOOLS_INLINE Vector Square(Vector a) { return vmulq_u16(a, a); }
  static QXTOOLS_INLINE Vector Low(Vector a) { return vandq_u16(a, vdupq_n_u16(0xFF)); }
  static QXTOOLS_INLINE Vector High(Vector a) { return vshrq_n_u16(a, 8); }

  static QXTOOLS_INLINE int16x4_t FourLengths(uint16x4_t sum, uint16x4_t low, uint16x4_t high) {
    const uint32x4_t noise = vdupq_n_u32(kFeatureNoise);
    const uint32x4_t squares = vmlal_n_u16(vmlal_n_u16(noise, low, 32), high, 32 * 256);
    const float32x4_t root = vsqrtq_f32(vcvtq_f32_u32(vmlsl_u16(squares, sum, sum)));
    return vmovn_s32(vcvtq_s32_f32(vdivq_f32(vdupq_n_f32(-kFeatureLength), root)));
  }
  static QXTOOLS_INLINE Vector MinusLengths(Vector sum, Vector low, Vector high) {
    return vreinterpretq_u16_s16(
        vcombine_s16(FourLengths(vget_low_u16(sum), vget_low_u16(low), vget_low_u16(high)),
                     FourLengths(vget_high_u16(sum), vget_high_u16(low), vget_high_u16(high))));
  }

  static QXTOOLS_INLINE Vector Scale(const std::uint16_t* from, Vector sum4, Vector minus_lengths) {
    const int16x8_t difference = vreinterpretq_s16_u16(vsubq_u16(sum4, vld1q_u16(from)));
    return vreinterpretq_u16_s16(vqrdmulhq_s16(difference, vreinterpretq_s16_u16(minus_lengths)));
  }
  static QXTOOLS_INLINE Bytes Narrow(Vector a, Vector b) {
    return vqmovn_high_s16(vqmovn_s16(vreinterpretq_s16_u16(a)), vreinterpretq_s16_u16(b));
  }
  template <int kUnit>
  static QXTOOLS_INLINE void Interleave(Bytes a, Bytes b, Bytes& low, Bytes& high) {
    if constexpr (kUnit == 1) {
      low = vzip1q_s8(a, b), high = vzip2q_s8(a, b);
    } else if constexpr (kUnit == 2) {
      const auto u = vreinterpretq_s16_s8(a), v = vreinterpretq_s16_s8(b);
      low = vreinterpretq_s8_s16(vzip1q_s16(u, v)), high = vreinterpretq_s8_s16(vzip2q_s16(u, v));
    } else if constexpr (kUnit == 4) {
      const auto u = vreinterpretq_s32_s8(a), v = vreinterpretq_s32_s8(b);
      low = vreinterpretq_s8_s32(vzip1q_s32(u, v)), high = vreinterpretq_s8_s32(vzip2q_s32(u, v));
    } else {
      const auto u = vreinterpretq_s64_s8(a), v = vreinterpretq_s64_s8(b);
      low = vreinterpretq_s8_s64(vzip1q_s64(u, v)), high = vreinterpretq_s8_s64(vzip2q_s64(u, v));
    }
  }
  static QXTOOLS_INLINE void StoreParts(std::int8_t* to, Bytes a) { vst1q_s8(to, a); }
  static QXTOOLS_INLINE void Describe(const std::uint16_t* const* neighbours, std::size_t x,
                                      Vector sum4, Vector minus_lengths, std::int8_t* to) {
    DescribeTransposed<Neon>(neighbours, x, sum4, minus_lengths, to);
  }
};

}  // namespace

const FeatureKernel kFeaturesNeon = {DescribeRows<Neon>};

}  // namespace qx::utils::stereo
