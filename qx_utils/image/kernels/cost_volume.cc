#include "qx_utils/image/kernels/cost_volume.h"

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <memory>

#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::utils::image {
namespace {

constexpr CostVolumeVariant kVariants[] = {
#if defined(__x86_64__)
    {"avx512vnni", internal::kCpuAvx512Vnni, &kCostVolumeAvx512Vnni},
    {"avx2", internal::kCpuAvx2, &kCostVolumeAvx2},
#elif defined(__aarch64__)
    {"neon_dotprod", internal::kCpuNeonDotprod, &kCostVolumeNeonDotprod},
    {"neon", internal::kCpuNeon, &kCostVolumeNeon},
#endif
    {"scalar", 0, &kCostVolumeScalar},
};

// Unused bytes between the scratch buffers of two threads: the hardware prefetcher runs well past
// the end of what a thread reads and would take cache lines from its neighbour, see
// docs/cost-volume.md.
constexpr std::size_t kApart = std::size_t{256} * 1024;

std::size_t RoundUp(std::size_t bytes) {
  return (bytes + kCostVolumeAlignment - 1) / kCostVolumeAlignment * kCostVolumeAlignment;
}

// Thread `thread` of `threads` takes a contiguous share; the first ones take one row more.
void ComputeShare(const CostVolumeKernel& kernel, const CostVolumeJob& job, std::size_t rows,
                  std::size_t thread, std::size_t threads, std::uint8_t* scratch) {
  const std::size_t share = rows / threads;
  const std::size_t longer = rows % threads;
  const std::size_t first = thread * share + std::min(thread, longer);
  kernel.rows(job, first, first + share + (thread < longer ? 1 : 0), scratch);
}

}  // namespace

const CostVolumeVariant* CostVolumeVariants(std::size_t* count) {
  *count = sizeof(kVariants) / sizeof(kVariants[0]);
  return kVariants;
}

const CostVolumeKernel& ActiveCostVolumeKernel() {
  std::size_t count = 0;
  const CostVolumeVariant* table = CostVolumeVariants(&count);
  return *internal::BestVariant(table, count, internal::ActiveFeatures()).kernel;
}

std::size_t CostVolumeScratchPitch(const CostVolumeKernel& kernel, const CostVolumeJob& job) {
  return RoundUp(kernel.scratch_bytes(job)) + kApart;
}

void ComputeCostVolume(const CostVolumeKernel& kernel, const CostVolumeJob& job, std::size_t rows) {
  const auto most = static_cast<std::size_t>(std::max(1, omp_get_max_threads()));
  const auto threads = static_cast<int>(std::min(most, rows));
  const std::size_t per_thread = CostVolumeScratchPitch(kernel, job);
  // All memory of the call, before the threads start: nothing below can fail.
  const std::unique_ptr<std::uint8_t[]> block(
      new std::uint8_t[per_thread * static_cast<std::size_t>(threads)]);
  const auto address = reinterpret_cast<std::uintptr_t>(block.get());
  std::uint8_t* const scratch = block.get() + (RoundUp(address) - address);
#pragma omp parallel num_threads(threads)
  {
    const auto thread = static_cast<std::size_t>(omp_get_thread_num());
    const auto team = static_cast<std::size_t>(omp_get_num_threads());
    ComputeShare(kernel, job, rows, thread, team, scratch + thread * per_thread);
  }
}

}  // namespace qx::utils::image
