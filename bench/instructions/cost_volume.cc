// Runs one way to compute a cost volume a number of times on one thread, for a program that counts
// instructions: the difference between two numbers of runs is the cost of a run.
//
// usage: cost_volume NAME RUNS HEIGHT WIDTH CHANNELS DISPARITIES
//   NAME   a variant, or `loop` for the element-by-element loop
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/cost_volume_rivals.h"

namespace {

using qx::utils::image::CostVolumeJob;
using qx::utils::image::CostVolumeKernel;

std::size_t Number(const char* text) { return std::strtoul(text, nullptr, 10); }

void RunLoop(const CostVolumeJob& job, std::size_t rows, std::vector<float>& costs) {
  qx::bench::ElementRows(job, 0, rows, costs.data());
  qx::bench::QuantiseElements(costs.data(), costs.size(), job.cost);
}

// Returns: null for the loop.
const CostVolumeKernel* Find(const std::string& name) {
  if (name == "neon") return &qx::utils::image::kCostVolumeNeon;
  if (name == "neon_dotprod") return &qx::utils::image::kCostVolumeNeonDotprod;
  if (name == "scalar") return &qx::utils::image::kCostVolumeScalar;
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) return 2;
  const std::string name = argv[1];
  const std::size_t rows = Number(argv[3]);
  const std::size_t width = Number(argv[4]);
  const std::size_t channels = Number(argv[5]);
  const std::size_t disparities = Number(argv[6]);
  const std::vector<std::int8_t> left(rows * width * channels, 3);
  const std::vector<std::int8_t> right(left.size(), 5);
  std::vector<std::int8_t> cost(rows * width * disparities);
  std::vector<float> costs(cost.size());
  const CostVolumeJob job{left.data(), right.data(), cost.data(), width,
                          channels,    disparities,  0.01F};
  const CostVolumeKernel* kernel = Find(name);
  if (kernel == nullptr && name != "loop") return 2;
  std::vector<std::uint8_t> scratch(kernel == nullptr ? 0 : kernel->scratch_bytes(job) + 64);
  const auto first = reinterpret_cast<std::uintptr_t>(scratch.data());
  for (std::size_t run = 0; run < Number(argv[2]); ++run) {
    if (kernel == nullptr) {
      RunLoop(job, rows, costs);
    } else {
      kernel->rows(job, 0, rows, scratch.data() + (64 - first % 64) % 64);
    }
  }
  return 0;
}
