#include "qx_utils/image/cost_volume_threads.h"

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <memory>

namespace qx {
namespace utils {
namespace image {
namespace {

// Bytes between the scratch of two threads, touched by none. A processor's prefetching runs on far
// behind what a thread reads grain by grain, and takes cache lines from the thread whose scratch
// lies there: see docs/cost-volume.md.
constexpr std::size_t kApart = std::size_t{256} * 1024;

std::size_t RoundUp(std::size_t bytes) {
  return (bytes + kCostVolumeAlignment - 1) / kCostVolumeAlignment * kCostVolumeAlignment;
}

// Thread `thread` of `threads` takes a contiguous share; the first ones take one row more.
void ComputeShare(const CostVolumeVariant& variant, const CostVolumeJob& job, std::size_t rows,
                  std::size_t thread, std::size_t threads, std::uint8_t* scratch) {
  const std::size_t share = rows / threads;
  const std::size_t longer = rows % threads;
  const std::size_t first = thread * share + std::min(thread, longer);
  variant.rows(job, first, first + share + (thread < longer ? 1 : 0), scratch);
}

}  // namespace

void ComputeCostVolume(const CostVolumeVariant& variant, const CostVolumeJob& job,
                       std::size_t rows) {
  const auto most = static_cast<std::size_t>(std::max(1, omp_get_max_threads()));
  const auto threads = static_cast<int>(std::min(most, rows));
  const std::size_t per_thread = RoundUp(variant.scratch_bytes(job)) + kApart;
  // All memory of the call, before the threads start: nothing below can fail.
  const std::unique_ptr<std::uint8_t[]> block(
      new std::uint8_t[per_thread * static_cast<std::size_t>(threads)]);
  const auto address = reinterpret_cast<std::uintptr_t>(block.get());
  std::uint8_t* const scratch = block.get() + (RoundUp(address) - address);
#pragma omp parallel num_threads(threads)
  {
    const auto thread = static_cast<std::size_t>(omp_get_thread_num());
    const auto team = static_cast<std::size_t>(omp_get_num_threads());
    ComputeShare(variant, job, rows, thread, team, scratch + thread * per_thread);
  }
}

}  // namespace image
}  // namespace utils
}  // namespace qx
