#include "bench/stereo_limit.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <vector>

#include "qx_utils/image/kernels/cpu_features.h"
#include "qx_utils/stereo/kernels/semi_global.h"
#include "tools/media/stereo_source.h"

namespace qx::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPaths = 8;
constexpr double kInstructionsPerCycle = 4;

// A vector of the active instruction set, and the instructions that docs/stereo.md counts for the
// sums of as many values and the selection from them.
struct Cost {
  int vector_bytes, instructions;
};

Cost ActiveCost() {
  const std::uint32_t active = utils::internal::ActiveFeatures();
  if ((active & utils::internal::kCpuAvx512Vnni) != 0) return {64, 97};
  if ((active & utils::internal::kCpuAvx2) != 0) return {32, 97};
  if ((active & utils::internal::kCpuNeon) != 0) return {16, 108};
  return {0, 1};
}

// The clock, by a chain of additions that each wait for the one before.
double CyclesPerSecond() {
  constexpr int kSteps = 1 << 18;
  std::uint64_t sum = 0;
  const auto start = Clock::now();
  for (int i = 0; i < kSteps; ++i) {
    for (int k = 0; k < 8; ++k) {
      sum += static_cast<std::uint64_t>(i);
      __asm__ volatile("" : "+r"(sum));
    }
  }
  return 8.0 * kSteps / std::chrono::duration<double>(Clock::now() - start).count();
}

const utils::stereo::SemiGlobalKernel& ActiveKernel() {
  std::size_t count = 0;
  const utils::stereo::SemiGlobalVariant* const table = utils::stereo::SemiGlobalVariants(&count);
  return *utils::internal::BestVariant(table, count, utils::internal::ActiveFeatures()).kernel;
}

}  // namespace

AggregationSpeed MeasureAggregation(const Scene& scene, int rounds) {
  const tools::LumaView luma(scene.left);
  const std::size_t pixels = std::size_t{luma.width} * luma.height;
  const auto disparities = static_cast<std::size_t>(scene.disparities);
  std::vector<std::int8_t> correlation(pixels * disparities);
  std::mt19937 random(1);
  for (auto& value : correlation) value = static_cast<std::int8_t>(random() % 138) - 13;
  const utils::stereo::SemiGlobalJob job{correlation.data(),
                                         {luma.data, luma.pitch, luma.width, luma.height},
                                         luma.width,
                                         luma.height,
                                         disparities,
                                         0,
                                         utils::stereo::kDefaultSlant,
                                         utils::stereo::kDefaultJump,
                                         kPaths};
  utils::stereo::SemiGlobalScratch scratch;
  std::vector<std::uint16_t> disparity(pixels);
  double best = 1e9, most_cycles = 0;
  for (int round = 0; round < rounds; ++round) {
    const auto start = Clock::now();
    utils::stereo::MatchVolume(ActiveKernel(), job, {}, scratch, disparity.data(), nullptr);
    best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
    double cycles = 0;
#pragma omp parallel reduction(+ : cycles)
    cycles += CyclesPerSecond();
    most_cycles = std::max(most_cycles, cycles);
  }
  const Cost cost = ActiveCost();
  return {best, static_cast<double>(correlation.size()) / best,
          most_cycles * kInstructionsPerCycle * cost.vector_bytes / cost.instructions};
}

}  // namespace qx::bench
