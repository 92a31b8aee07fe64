// Measures every variant of the cost volume against the ordinary loop, oneDNN's matrix product of
// the same bands and the processor's peak, in the same run, and prints the ratios.
//
// usage: cost_volume_bench [--json] [RUNS]
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench/cost_volume_rivals.h"
#include "bench/interleaved.h"
#include "qx_utils/image/kernels/cost_volume.h"
#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::bench {
namespace {

using utils::image::ComputeCostVolume;
using utils::image::CostVolumeJob;
using utils::image::CostVolumeVariant;

struct Shape {
  std::size_t height, width, channels, disparities;
};
constexpr Shape kShapes[] = {{96, 320, 32, 48},
                             {180, 320, 64, 64},
                             {270, 480, 128, 96},
                             {540, 960, 32, 128},
                             {60, 80, 256, 16}};

struct Maps {
  explicit Maps(const Shape& shape)
      : left(shape.height * shape.width * shape.channels),
        right(left.size()),
        cost(shape.height * shape.width * shape.disparities) {
    std::mt19937 random(1);
    for (auto& value : left) value = static_cast<std::int8_t>(random());
    for (auto& value : right) value = static_cast<std::int8_t>(random());
  }
  std::vector<std::int8_t> left, right, cost;
};

double Multiplications(const Shape& s) {
  const std::size_t d = std::min(s.disparities, s.width);
  const std::size_t pairs = s.width * d - d * (d - 1) / 2;  // of columns, per row
  return static_cast<double>(s.height * s.channels * pairs);
}

struct Result {
  Shape shape;
  std::string variant;
  int threads;
  double milliseconds, gmacs;
  double loop = 0, onednn = 0, peak = 0;  // speed relative to each; 0 when it is not there
};

std::vector<const CostVolumeVariant*> VariantsHere() {
  std::size_t count = 0;
  const CostVolumeVariant* table = utils::image::CostVolumeVariants(&count);
  std::vector<const CostVolumeVariant*> variants;
  for (std::size_t v = 0; v + 1 < count; ++v) {
    const bool runs_here = (table[v].required & ~utils::internal::SupportedFeatures()) == 0;
    if (runs_here) variants.push_back(&table[v]);
  }
  return variants;
}

// What takes turns: the variants, and after them the loop and those of the other rivals that there
// are.
std::vector<Contender> ContendersFor(const CostVolumeJob& job, std::size_t rows, int threads,
                                     OnednnBands& bands) {
  std::vector<Contender> contenders;
  const std::vector<const CostVolumeVariant*> variants = VariantsHere();
  contenders.reserve(variants.size() + 3);
  for (const CostVolumeVariant* variant : variants) {
    contenders.push_back(
        {variant->name, [&job, rows, variant] { ComputeCostVolume(*variant->kernel, job, rows); }});
  }
  contenders.push_back({"loop", [&job, rows] { ElementByElement(job, rows); }});
  if (OnednnBands::Available()) {
    contenders.push_back({"oneDNN", [&job, &bands, rows] { bands.Run(job, rows); }});
  }
  if (PeakMacs() > 0) {
    contenders.push_back({"peak", [threads] {
#pragma omp parallel num_threads(threads)
                            RunPeak();
                          }});
  }
  return contenders;
}

std::vector<Result> Measure(const Shape& shape, int threads, int runs) {
  Maps maps(shape);
  const CostVolumeJob job{maps.left.data(), maps.right.data(), maps.cost.data(), shape.width,
                          shape.channels,   shape.disparities, 0.0005F};
  omp_set_num_threads(threads);
  OnednnBands bands(64);
  Rounds rounds;
  rounds.count = runs;
  rounds.warm_up = 1;
  rounds.one_core = false;
  const std::vector<Times> times =
      RunInterleaved(ContendersFor(job, shape.height, threads, bands), rounds);
  const std::vector<const CostVolumeVariant*> variants = VariantsHere();
  const auto times_as_fast = [&](std::size_t rival, std::size_t v) {
    return MedianRatio(times[variants.size() + rival].elapsed, times[v].elapsed);
  };
  std::vector<Result> results;
  for (std::size_t v = 0; v < variants.size(); ++v) {
    const double seconds = Median(times[v].elapsed);
    Result result{shape, variants[v]->name, threads, seconds * 1e3,
                  Multiplications(shape) / seconds * 1e-9};
    result.loop = times_as_fast(0, v);
    if (OnednnBands::Available()) result.onednn = times_as_fast(1, v);
    if (PeakMacs() > 0) {
      const std::size_t peak = OnednnBands::Available() ? 2 : 1;
      result.peak = times_as_fast(peak, v) * Multiplications(shape) / (PeakMacs() * threads);
    }
    results.push_back(result);
  }
  return results;
}

void PrintTable(const std::vector<Result>& results) {
  std::printf("%-18s %-13s %7s %9s %8s %9s %9s %7s\n", "H x W x C, D", "variant", "threads", "ms",
              "GMAC/s", "x loop", "x oneDNN", "% peak");
  for (const Result& r : results) {
    const std::string shape = std::to_string(r.shape.height) + "x" + std::to_string(r.shape.width) +
                              "x" + std::to_string(r.shape.channels) + ", " +
                              std::to_string(r.shape.disparities);
    std::printf("%-18s %-13s %7d %9.3f %8.1f %9.2f %9.2f %7.0f\n", shape.c_str(), r.variant.c_str(),
                r.threads, r.milliseconds, r.gmacs, r.loop, r.onednn, r.peak * 100);
  }
  for (const char* name : {"avx512vnni", "avx2", "neon_dotprod", "neon"}) {
    double logs = 0;
    int count = 0;
    for (const Result& r : results) {
      if (r.variant == name && r.threads > 1) logs += std::log(r.loop), ++count;
    }
    if (count > 0) std::printf("%s: %.2f x loop (geometric mean)\n", name, std::exp(logs / count));
  }
}

void PrintJson(const std::vector<Result>& results) {
  std::printf("[");
  const char* separator = "\n";
  for (const Result& r : results) {
    std::printf(
        "%s  {\"height\": %zu, \"width\": %zu, \"channels\": %zu, \"disparities\": %zu, "
        "\"variant\": \"%s\", \"threads\": %d, \"ms\": %.4f, \"gmacs\": %.2f, \"x_loop\": %.3f, "
        "\"x_onednn\": %.3f, \"of_peak\": %.3f}",
        separator, r.shape.height, r.shape.width, r.shape.channels, r.shape.disparities,
        r.variant.c_str(), r.threads, r.milliseconds, r.gmacs, r.loop, r.onednn, r.peak);
    separator = ",\n";
  }
  std::printf("\n]\n");
}

int Main(int argc, char** argv) {
  const bool json = argc > 1 && std::strcmp(argv[1], "--json") == 0;
  const int at = json ? 2 : 1;
  const int runs = argc > at ? std::max(1, std::atoi(argv[at])) : 15;
  std::vector<Result> results;
  for (const int threads : {1, omp_get_num_procs()}) {
    for (const Shape& shape : kShapes) {
      for (Result& result : Measure(shape, threads, runs)) results.push_back(std::move(result));
    }
  }
  json ? PrintJson(results) : PrintTable(results);
  return 0;
}

}  // namespace
}  // namespace qx::bench

int main(int argc, char** argv) { return qx::bench::Main(argc, argv); }
