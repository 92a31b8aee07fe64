#include <arm_neon.h>

#include "qx_utils/image/kernels/argb_steps-inl.h"

namespace qx::utils::image {
namespace {

struct Neon {
  static constexpr std::size_t kStep = 16;  // pixels of one structured load
  static constexpr bool kStreams = false;

  template <bool kBgr, bool kStreaming>
  QXTOOLS_INLINE static void Widen(const std::uint8_t* src, std::uint8_t* dst) {
    const uint8x16x3_t in = vld3q_u8(src);
    const uint8x16x4_t out = {
        {vdupq_n_u8(0), in.val[kBgr ? 2 : 0], in.val[1], in.val[kBgr ? 0 : 2]}};
    vst4q_u8(dst, out);
  }
};

}  // namespace

const ArgbKernel kArgbNeon = KernelOf<Neon>();

}  // namespace qx::utils::image
