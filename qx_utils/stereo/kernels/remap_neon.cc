// Remapping with NEON: a group of 8 pixels at a time.
//
// A table of three vectors is the whole window, in which a place is an index.
#include <arm_neon.h>

#include "qx_utils/stereo/kernels/remap_steps-inl.h"

namespace qx::utils::stereo {
namespace {

struct Fractions {
  uint8x8_t left, right;  // weights of the pixels
  int16x8_t fy;           // times 256
};

QXTOOLS_INLINE Fractions FractionsOf(const std::uint8_t* fx, const std::uint8_t* fy) {
  const uint8x8_t right = vld1_u8(fx);
  return {vsub_u8(vdup_n_u8(kRemapUnit), right), right,
          vreinterpretq_s16_u16(vshll_n_u8(vld1_u8(fy), 8))};
}

QXTOOLS_INLINE uint8x8_t BlendEight(uint8x8_t a, uint8x8_t b, uint8x8_t c, uint8x8_t d,
                                    const Fractions& fractions) {
  const auto row = [&](uint8x8_t left, uint8x8_t right) QXTOOLS_INLINE_BODY {
    const uint16x8_t sum = vmull_u8(left, fractions.left);
    return vreinterpretq_s16_u16(vmlal_u8(sum, right, fractions.right));
  };
  const int16x8_t above = row(a, b), below = row(c, d);
  const int16x8_t step = vqrdmulhq_s16(vsubq_s16(below, above), fractions.fy);
  return vqrshrun_n_s16(vaddq_s16(above, step), kRemapBits);
}

struct Neon {
  static constexpr std::size_t kGroups = 1;
  using Pixels = uint8x16_t;  // the left ones, then the right ones

  static QXTOOLS_INLINE void FromWindows(const GreyView& source, const std::uint32_t* groups,
                                         const std::uint8_t* places, Pixels& above, Pixels& below) {
    const std::uint8_t* const corner =
        source.data + (groups[0] >> 16U) * source.pitch + (groups[0] & 0xFFFFU);
    const uint8x16x3_t window = {
        {vld1q_u8(corner), vld1q_u8(corner + source.pitch), vld1q_u8(corner + 2 * source.pitch)}};
    const uint8x8_t place = vld1_u8(places);
    const uint8x16_t both = vcombine_u8(place, vadd_u8(place, vdup_n_u8(1)));
    above = vqtbl3q_u8(window, both);
    below = vqtbl3q_u8(window, vaddq_u8(both, vdupq_n_u8(kWindowColumns)));
  }

  static QXTOOLS_INLINE Pixels FromPairs(const std::uint8_t* pairs) {
    const uint8x8x2_t both = vld2_u8(pairs);
    return vcombine_u8(both.val[0], both.val[1]);
  }

  static QXTOOLS_INLINE void Blend(Pixels above, Pixels below, const std::uint8_t* fx,
                                   const std::uint8_t* fy, std::uint8_t* result) {
    vst1_u8(result, BlendEight(vget_low_u8(above), vget_high_u8(above), vget_low_u8(below),
                               vget_high_u8(below), FractionsOf(fx, fy)));
  }

  static QXTOOLS_INLINE void BlendColours(const std::uint8_t* above, const std::uint8_t* below,
                                          const std::uint8_t* fx, const std::uint8_t* fy,
                                          std::uint8_t* result) {
    // Bytes n and n + 4 of the pixels in turns: of no account and blue; of no account and red;
    // red and green; green and blue, the left pixel's before the right one's.
    const uint8x16x4_t a = vld4q_u8(above), b = vld4q_u8(below);
    const auto even = [](uint8x16_t v) { return vget_low_u8(vuzp1q_u8(v, v)); };
    const auto odd = [](uint8x16_t v) { return vget_low_u8(vuzp2q_u8(v, v)); };
    const Fractions fractions = FractionsOf(fx, fy);
    const auto red =
        BlendEight(even(a.val[2]), odd(a.val[1]), even(b.val[2]), odd(b.val[1]), fractions);
    const auto green =
        BlendEight(even(a.val[3]), odd(a.val[2]), even(b.val[3]), odd(b.val[2]), fractions);
    const auto blue =
        BlendEight(odd(a.val[0]), odd(a.val[3]), odd(b.val[0]), odd(b.val[3]), fractions);
    const uint8x8x3_t colours = {{red, green, blue}};
    vst3_u8(result, colours);
  }
};

}  // namespace

const RemapKernel kRemapNeon = {RemapGrey<Neon>, RemapColour<Neon>};

}  // namespace qx::utils::stereo
