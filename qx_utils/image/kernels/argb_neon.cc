#include <arm_neon.h>

#include "qx_utils/image/kernels/argb.h"

namespace qx::utils::image {
namespace {

constexpr std::size_t kStep = 16;  // pixels of one structured load

template <int kRed, int kBlue>
void Widen(const std::uint8_t* src, std::uint8_t* dst) {
  const uint8x16x3_t pixels = vld3q_u8(src);
  const uint8x16x4_t widened = {
      {vdupq_n_u8(0), pixels.val[kRed], pixels.val[1], pixels.val[kBlue]}};
  vst4q_u8(dst, widened);
}

template <int kRed, int kBlue>
void Run(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels) {
  if (pixels < kStep) {
    (kRed == 0 ? kArgbScalar.rgb : kArgbScalar.bgr)(src, dst, pixels);
    return;
  }
  const std::size_t last = pixels - kStep;  // the last step may redo pixels of the one before
  for (std::size_t i = 0; i < last; i += kStep) Widen<kRed, kBlue>(src + 3 * i, dst + 4 * i);
  Widen<kRed, kBlue>(src + 3 * last, dst + 4 * last);
}

}  // namespace

const ArgbRuns kArgbNeon = {Run<0, 2>, Run<2, 0>};

}  // namespace qx::utils::image
