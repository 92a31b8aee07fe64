#include "qx_utils/stereo/kernels/features.h"

#include <omp.h>

#include <algorithm>

#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::utils::stereo {
namespace {

// AVX-512 has none: with vectors of 64 bytes the same driver was no faster than with AVX2's.
constexpr FeatureVariant kVariants[] = {
#if defined(__x86_64__)
    {"avx2", internal::kCpuAvx2, &kFeaturesAvx2},
#elif defined(__aarch64__)
    {"neon", internal::kCpuNeon, &kFeaturesNeon},
#endif
    {"scalar", 0, &kFeaturesScalar},
};

}  // namespace

const FeatureVariant* FeatureVariants(std::size_t* count) {
  *count = sizeof(kVariants) / sizeof(kVariants[0]);
  return kVariants;
}

void ComputeFeatureMap(const FeatureKernel& kernel, const GreyView& picture, std::size_t shift,
                       std::int8_t* map) {
  // A contiguous share of the rows for each thread: a kernel starts a share by reading six rows
  // beyond it.
#pragma omp parallel
  {
    const auto thread = static_cast<std::size_t>(omp_get_thread_num());
    const auto threads = static_cast<std::size_t>(omp_get_num_threads());
    const std::size_t first = picture.height * thread / threads;
    const std::size_t end = picture.height * (thread + 1) / threads;
    if (first < end) kernel.rows(picture, shift, first, end, map);
  }
}

}  // namespace qx::utils::stereo
