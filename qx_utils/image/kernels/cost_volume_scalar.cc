// The definition of the cost volume, one element at a time.
#include <cmath>

#include "qx_utils/image/kernels/cost_volume.h"

namespace qx::utils::image {
namespace {

std::int32_t Dot(const std::int8_t* a, const std::int8_t* b, std::size_t channels) {
  // Unsigned sums wrap as 32-bit signed arithmetic does in registers.
  std::uint32_t sum = 0;
  for (std::size_t c = 0; c < channels / kCostVolumeBlock * kCostVolumeBlock; ++c) {
    sum += static_cast<std::uint32_t>(a[c] * b[c]);
  }
  return static_cast<std::int32_t>(sum);
}

// Rounds to the nearest integer, ties towards positive infinity, limits it to 32 bits, keeps 8.
std::int8_t Quantise(float value) {
  const float scaled = value >= 0.0F ? value : value * kCostVolumeLeak;
  if (std::isnan(scaled)) return 0;
  const double rounded = std::floor(static_cast<double>(scaled) + 0.5);  // exact in double
  if (rounded >= 2147483647.0) return static_cast<std::int8_t>(-1);      // 0x7FFFFFFF
  if (rounded <= -2147483648.0) return 0;                                // 0x80000000
  return static_cast<std::int8_t>(static_cast<std::int32_t>(rounded) & 0xFF);
}

void ComputeRows(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                 std::uint8_t* /*scratch*/) {
  for (std::size_t y = first_row; y < end_row; ++y) {
    for (std::size_t x = 0; x < job.width; ++x) {
      const std::size_t pixel = y * job.width + x;
      for (std::size_t d = 0; d < job.disparities; ++d) {
        std::int8_t& cost = job.cost[pixel * job.disparities + d];
        cost = 0;
        if (d > x) continue;
        const std::int32_t sum = Dot(job.left + pixel * job.channels,
                                     job.right + (pixel - d) * job.channels, job.channels);
        cost = Quantise(static_cast<float>(sum) * job.scale);
      }
    }
  }
}

std::size_t NoScratch(const CostVolumeJob& /*job*/) { return 0; }

}  // namespace

const CostVolumeKernel kCostVolumeScalar = {ComputeRows, NoScratch};

}  // namespace qx::utils::image
