#include "qx_utils/stereo/kernels/remap.h"

#include <omp.h>

#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::utils::stereo {
namespace {

constexpr RemapVariant kVariants[] = {
#if defined(__x86_64__)
    {"avx512vnni", internal::kCpuAvx512Vnni, &kRemapAvx512},
    {"avx2", internal::kCpuAvx2, &kRemapAvx2},
#elif defined(__aarch64__)
    {"neon", internal::kCpuNeon, &kRemapNeon},
#endif
    {"scalar", 0, &kRemapScalar},
};

}  // namespace

const RemapVariant* RemapVariants(std::size_t* count) {
  *count = sizeof(kVariants) / sizeof(kVariants[0]);
  return kVariants;
}

void RemapPicture(RemapRows rows, const RemapView& map, const GreyView& source,
                  std::uint8_t* result) {
  // A contiguous share of the rows for each thread, which reads a contiguous share of the source.
#pragma omp parallel
  {
    const auto thread = static_cast<std::size_t>(omp_get_thread_num());
    const auto threads = static_cast<std::size_t>(omp_get_num_threads());
    const std::size_t first = map.height * thread / threads;
    const std::size_t end = map.height * (thread + 1) / threads;
    if (first < end) rows(map, source, first, end, result);
  }
}

}  // namespace qx::utils::stereo
