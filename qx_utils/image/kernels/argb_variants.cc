#include "qx_utils/image/kernels/argb.h"
#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::utils::image {
namespace {

constexpr ArgbVariant kVariants[] = {
#if defined(__x86_64__)
    {"avx512vbmi", internal::kCpuAvx512Vbmi, &kArgbAvx512Vbmi, &kArgbAvx512VbmiStreaming},
    {"avx2", internal::kCpuAvx2, &kArgbAvx2, &kArgbAvx2Streaming},
    {"ssse3", internal::kCpuSsse3, &kArgbSsse3, &kArgbSsse3Streaming},
#elif defined(__aarch64__)
    {"neon", internal::kCpuNeon, &kArgbNeon, nullptr},
#endif
    {"scalar", 0, &kArgbScalar, nullptr},
};

}  // namespace

const ArgbVariant* ArgbVariants(std::size_t* count) {
  *count = sizeof(kVariants) / sizeof(kVariants[0]);
  return kVariants;
}

}  // namespace qx::utils::image
