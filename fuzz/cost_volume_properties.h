// Every variant of the cost volume that this processor runs writes the bytes of `scalar`.
#pragma once

#include <cstring>
#include <string>

#include "qx_utils/image/kernels/cost_volume.h"
#include "tests/testing/guarded_buffer.h"
#include "tests/testing/kernel_variants.h"

namespace qx::fuzzing {

struct Shape {
  std::size_t width, channels, disparities;
};

// Computes all rows but the first, which keeps what it held, of two maps of value(is_left); inputs
// and output end (or begin) at a protected page. Returns: the first variant that differs, or "".
template <typename Value>
std::string DifferingVariant(const Shape& shape, float scale, Value value,
                             testing::GuardedBuffer::Guard guard) {
  using utils::image::kCostVolumeAlignment;
  constexpr std::size_t kRows = 3;
  const std::size_t inputs = kRows * shape.width * shape.channels;
  const std::size_t costs = kRows * shape.width * shape.disparities;
  const testing::GuardedBuffer left(inputs, guard), right(inputs, guard), actual(costs, guard);
  const testing::GuardedBuffer expected(costs);
  for (std::size_t i = 0; i < inputs; ++i) {
    left.data()[i] = static_cast<std::uint8_t>(value(true));
    right.data()[i] = static_cast<std::uint8_t>(value(false));
  }
  const auto values = [](const auto& buffer) {
    return reinterpret_cast<std::int8_t*>(buffer.data());
  };
  utils::image::CostVolumeJob job{values(left), values(right),  values(expected),
                                  shape.width,  shape.channels, shape.disparities,
                                  scale};
  std::memset(expected.data(), 0xEE, costs);
  utils::image::kCostVolumeScalar.rows(job, 1, kRows, nullptr);
  job.cost = values(actual);
  for (const auto& variant : testing::SupportedVariants(utils::image::CostVolumeVariants)) {
    const std::size_t bytes = variant.kernel->scratch_bytes(job) + kCostVolumeAlignment - 1;
    const testing::GuardedBuffer scratch(bytes / kCostVolumeAlignment * kCostVolumeAlignment);
    std::memset(scratch.data(), 0xA5, scratch.size());
    std::memset(actual.data(), 0xEE, costs);
    variant.kernel->rows(job, 1, kRows, scratch.data());
    if (std::memcmp(actual.data(), expected.data(), costs) != 0) return variant.name;
  }
  return "";
}

}  // namespace qx::fuzzing
