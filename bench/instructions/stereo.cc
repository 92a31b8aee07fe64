// Runs a stage of stereo matching a number of times on one thread, for a program that counts
// instructions: the difference between two numbers of runs is the cost of a run.
//
// usage: stereo NAME RUNS STAGE HEIGHT WIDTH
//   NAME   scalar or neon
//   STAGE  features, median3 or median5 (of all pixels, of which one in eight is missing)
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "qx_utils/stereo/kernels/disparity_map.h"
#include "qx_utils/stereo/kernels/features.h"

namespace {

using namespace qx::utils::stereo;

std::size_t Number(const char* text) { return std::strtoul(text, nullptr, 10); }

void RunFeatures(const FeatureKernel& kernel, std::size_t rows, std::size_t width,
                 std::size_t runs) {
  std::mt19937 random(1);
  std::vector<std::uint8_t> picture(rows * width);
  for (auto& value : picture) value = static_cast<std::uint8_t>(random());
  std::vector<std::int8_t> map(picture.size() * kFeatureChannels);
  for (std::size_t run = 0; run < runs; ++run) {
    kernel.rows({picture.data(), width, width, rows}, 0, 0, rows, map.data());
  }
}

void RunMedian(MedianGroup median, std::size_t rows, std::size_t width, std::size_t runs) {
  std::mt19937 random(1);
  const std::size_t pitch = width + kMedianGroup + 2 * kMedianReach;
  std::vector<std::uint16_t> map(pitch * (rows + 2 * kMedianReach));
  for (auto& value : map) {
    value = random() % 8 == 0 ? kMissing : static_cast<std::uint16_t>(random() % 16384);
  }
  std::uint16_t medians[kMedianGroup];
  for (std::size_t run = 0; run < runs; ++run) {
    for (std::size_t y = 0; y < rows; ++y) {
      const std::uint16_t* const row = map.data() + (y + kMedianReach) * pitch + kMedianReach;
      for (std::size_t x = 0; x < width; x += kMedianGroup) median(row + x, pitch, medians);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  const std::string name = argv[1], stage = argv[3];
  const std::size_t runs = Number(argv[2]), rows = Number(argv[4]), width = Number(argv[5]);
  const bool neon = name == "neon";
  const MedianKernel& medians = neon ? kMedianNeon : kMedianScalar;
  if (!neon && name != "scalar") return 2;
  if (stage == "features") {
    RunFeatures(neon ? kFeaturesNeon : kFeaturesScalar, rows, width, runs);
  } else if (stage == "median3") {
    RunMedian(medians.square3, rows, width, runs);
  } else if (stage == "median5") {
    RunMedian(medians.square5, rows, width, runs);
  } else {
    return 2;
  }
  return 0;
}
