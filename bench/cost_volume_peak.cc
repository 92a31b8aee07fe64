#include "bench/cost_volume_rivals.h"

namespace qx::bench {

#if defined(__x86_64__)

namespace {

// Sixteen independent sums hide the latency of one.
#define QXTOOLS_STEP(n) "vpdpbusd %%zmm16, %%zmm17, %%zmm" #n "\n\t"
#define QXTOOLS_FOUR(a, b, c, d) QXTOOLS_STEP(a) QXTOOLS_STEP(b) QXTOOLS_STEP(c) QXTOOLS_STEP(d)

constexpr int kPeakSteps = 1 << 18;

}  // namespace

double PeakMacs() { return __builtin_cpu_supports("avx512vnni") ? kPeakSteps * 16.0 * 64.0 : 0; }

__attribute__((target("avx512f,avx512vnni"))) void RunPeak() {
  for (int i = 0; i < kPeakSteps; ++i) {
    __asm__ volatile(QXTOOLS_FOUR(0, 1, 2, 3) QXTOOLS_FOUR(4, 5, 6, 7) QXTOOLS_FOUR(8, 9, 10, 11)
                         QXTOOLS_FOUR(12, 13, 14, 15)
                     :
                     :
                     : "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8",
                       "xmm9", "xmm10", "xmm11", "xmm12", "xmm13", "xmm14", "xmm15");
  }
}

#else

double PeakMacs() { return 0; }
void RunPeak() {}

#endif

}  // namespace qx::bench
