// Semi-global matching with the baseline of AArch64: 16 path costs to a vector.
#include <arm_neon.h>

#include "qx_utils/stereo/kernels/semi_global-inl.h"

namespace qx::utils::stereo {
namespace {

struct Neon {
  using Vector = uint8x16_t;
  using Quad = uint8x16_t;
  using Splat = std::uint8_t;
  using Counts = Numbers<1, 2, 3, 4, 5, 6, 7, 8, 10, 12, 14, 16>;
  static constexpr std::size_t kBytes = 16, kTail = 2;

  QXTOOLS_INLINE static Vector Load(const void* from) {
    return vld1q_u8(static_cast<const std::uint8_t*>(from));
  }
  QXTOOLS_INLINE static void Store(void* to, Vector v) {
    vst1q_u8(static_cast<std::uint8_t*>(to), v);
  }
  QXTOOLS_INLINE static Vector Set(std::uint8_t byte) { return vdupq_n_u8(byte); }
  QXTOOLS_INLINE static Vector Broadcast(const Splat* from) { return vld1q_dup_u8(from); }
  QXTOOLS_INLINE static void Splatter(const std::uint8_t* bytes, std::size_t count, Splat* to) {
    for (std::size_t i = 0; i < count; i += kBytes) Store(to + i, Load(bytes + i));
  }
  QXTOOLS_INLINE static Vector Min(Vector a, Vector b) { return vminq_u8(a, b); }
  QXTOOLS_INLINE static Vector Max(Vector a, Vector b) { return vmaxq_u8(a, b); }
  QXTOOLS_INLINE static Vector Add(Vector a, Vector b) { return vaddq_u8(a, b); }
  QXTOOLS_INLINE static Vector Subtract(Vector a, Vector b) { return vsubq_u8(a, b); }
  QXTOOLS_INLINE static Vector AddSaturated(Vector a, Vector b) { return vqaddq_u8(a, b); }
  QXTOOLS_INLINE static Vector Average(Vector a, Vector b) { return vrhaddq_u8(a, b); }
  QXTOOLS_INLINE static Vector Blend(Vector mask, Vector set, Vector clear) {
    return vbslq_u8(mask, set, clear);
  }

  // 127 - correlation is the correlation with all bits but the sign changed, as an unsigned byte.
  QXTOOLS_INLINE static Vector Cost(Vector correlation) {
    return vrshrq_n_u8(veorq_u8(correlation, Set(0x7F)), 1);
  }

  QXTOOLS_INLINE static Vector Up(Vector before, Vector v) { return vextq_u8(before, v, 15); }
  QXTOOLS_INLINE static Vector Down(Vector v, Vector after) { return vextq_u8(v, after, 1); }

  QXTOOLS_INLINE static Vector Prices(Vector a, Vector b, const std::uint8_t* table) {
    return vqtbl1q_u8(Load(table), Min(vshrq_n_u8(vabdq_u8(a, b), 2), Set(15)));
  }

  // Pairs of neighbouring lanes are reduced together.
  QXTOOLS_INLINE static Quad Minima(Vector a, Vector b, Vector c, Vector d) {
    const Vector all = vpminq_u8(vpminq_u8(a, b), vpminq_u8(c, d));
    const Vector halves = vpminq_u8(all, all);
    return vpminq_u8(halves, halves);
  }
  QXTOOLS_INLINE static void StoreMinima(PathMinima* to, Quad quad) {
    vst1q_lane_u32(to, vreinterpretq_u32_u8(quad), 0);
  }
  QXTOOLS_INLINE static Vector BroadcastFirst(Quad quad) { return vdupq_laneq_u8(quad, 0); }

  QXTOOLS_INLINE static std::uint8_t Least(Vector v) { return vminvq_u8(v); }

  // The smallest index of those whose cells are the smallest; all others count as 255.
  template <std::size_t kVectors>
  QXTOOLS_INLINE static std::size_t FirstLeast(const Vector (&cells)[kVectors], Vector minima) {
    static constexpr std::uint8_t kLanes[kBytes] = {0, 1, 2,  3,  4,  5,  6,  7,
                                                    8, 9, 10, 11, 12, 13, 14, 15};
    const Vector least = Set(Least(minima));
    Vector first = Set(255), index = Load(kLanes);
    Unroll<kVectors>([&](auto n) QXTOOLS_INLINE_BODY {
      first = Min(first, vornq_u8(index, vceqq_u8(cells[n], least)));
      index = Add(index, Set(kBytes));
    });
    return Least(first);
  }
};

}  // namespace

const SemiGlobalKernel kSemiGlobalNeon = kKernelOf<Neon>;

}  // namespace qx::utils::stereo
