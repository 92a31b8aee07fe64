// Every variant of the cost volume that this processor runs writes the bytes of `scalar`.
// The first bytes choose the shape and the scale, the rest repeats as the values of both maps.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "qx_utils/image/kernels/cost_volume.h"
#include "qx_utils/internal/cpu_features.h"

namespace {

using qx::utils::image::CostVolumeJob;

constexpr std::size_t kHeader = 8;
constexpr std::size_t kRows = 2;

// `bytes` of exactly this many, so that a sanitizer sees the first one beyond.
std::vector<std::int8_t> Values(const std::uint8_t* data, std::size_t size, std::size_t bytes,
                                std::size_t offset) {
  std::vector<std::int8_t> values(bytes);
  for (std::size_t i = 0; i < bytes; ++i) {
    values[i] = static_cast<std::int8_t>(data[(i + offset) % size]);
  }
  return values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size <= kHeader) return 0;
  CostVolumeJob job{};
  job.width = 1 + data[0] % 80;
  job.channels = 32 + data[1] % 160;
  job.disparities = 1 + data[2] % 100;
  std::memcpy(&job.scale, data + 4, sizeof(job.scale));
  const std::size_t bytes = kRows * job.width * job.channels;
  const auto left = Values(data + kHeader, size - kHeader, bytes, 0);
  const auto right = Values(data + kHeader, size - kHeader, bytes, data[3]);
  job.left = left.data();
  job.right = right.data();
  std::vector<std::int8_t> expected(kRows * job.width * job.disparities);
  job.cost = expected.data();
  qx::utils::image::CostVolumeRowsScalar(job, 0, kRows, nullptr);

  std::size_t count = 0;
  const auto* table = qx::utils::image::CostVolumeVariants(&count);
  for (std::size_t v = 0; v + 1 < count; ++v) {
    if ((table[v].required & ~qx::utils::internal::SupportedFeatures()) != 0) continue;
    std::vector<std::int8_t> cost(expected.size());
    job.cost = cost.data();
    constexpr std::size_t kAlign = qx::utils::image::kCostVolumeAlignment;
    const std::size_t scratch_bytes = (table[v].scratch_bytes(job) + kAlign - 1) / kAlign * kAlign;
    auto* scratch = static_cast<std::uint8_t*>(std::aligned_alloc(kAlign, scratch_bytes));
    table[v].rows(job, 0, kRows, scratch);
    std::free(scratch);
    if (cost != expected) std::abort();
  }
  return 0;
}
