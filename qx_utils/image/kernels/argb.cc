#include "qx_utils/image/kernels/argb.h"

#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::utils::image {
namespace {

constexpr ArgbVariant kVariants[] = {
#if defined(__x86_64__)
    {"avx512vbmi", internal::kCpuAvx512Vbmi, &kArgbAvx512Vbmi},
    {"avx2", internal::kCpuAvx2, &kArgbAvx2},
    {"ssse3", internal::kCpuSsse3, &kArgbSsse3},
#elif defined(__aarch64__)
    {"neon", internal::kCpuNeon, &kArgbNeon},
#endif
    {"scalar", 0, &kArgbScalar},
};

}  // namespace

const ArgbVariant* ArgbVariants(std::size_t* count) {
  *count = sizeof(kVariants) / sizeof(kVariants[0]);
  return kVariants;
}

const ArgbKernel& ActiveArgbKernel() {
  std::size_t count = 0;
  const ArgbVariant* table = ArgbVariants(&count);
  return *internal::BestVariant(table, count, internal::ActiveFeatures()).kernel;
}

void WidenToArgb(const ArgbKernel& kernel, ArgbRun ArgbRuns::*order, const std::uint8_t* src,
                 std::uint8_t* dst, std::size_t pixels) {
  const ArgbRun cached = kernel.cached.*order;
  const ArgbRun streaming = kernel.streaming.*order;
  const std::size_t ahead = (0 - reinterpret_cast<std::uintptr_t>(dst)) % kArgbStreamAlignment;
  if (streaming == nullptr || pixels < kArgbStreamingBytes / 4 || ahead % 4 != 0) {
    cached(src, dst, pixels);
    return;
  }
  cached(src, dst, ahead / 4);
  streaming(src + ahead / 4 * 3, dst + ahead, pixels - ahead / 4);
}

}  // namespace qx::utils::image
