// Medians with NEON, 8 pixels at a time.
#include <arm_neon.h>

#include "qx_utils/stereo/kernels/disparity_median-inl.h"

namespace qx::utils::stereo {
namespace {

struct Neon {
  using Vector = uint16x8_t;
  static constexpr std::size_t kLanes = 8;

  static QXTOOLS_INLINE Vector Load(const std::uint16_t* from) { return vld1q_u16(from); }
  static QXTOOLS_INLINE void Store(std::uint16_t* to, Vector a) { vst1q_u16(to, a); }
  static QXTOOLS_INLINE Vector Min(Vector a, Vector b) { return vminq_u16(a, b); }
  static QXTOOLS_INLINE Vector Max(Vector a, Vector b) { return vmaxq_u16(a, b); }
  static QXTOOLS_INLINE Vector Equal(Vector a, Vector b) { return vceqq_u16(a, b); }
  static QXTOOLS_INLINE Vector And(Vector a, Vector b) { return vandq_u16(a, b); }
  static QXTOOLS_INLINE Vector Clear(Vector a, Vector bits) { return vbicq_u16(a, bits); }
  static QXTOOLS_INLINE Vector Xor(Vector a, Vector b) { return veorq_u16(a, b); }
};

}  // namespace

const MedianKernel kMedianNeon = {MedianOfSquares<Neon, 1>, MedianOfSquares<Neon, 2>};

}  // namespace qx::utils::stereo
