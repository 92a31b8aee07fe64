// Matches a random volume a number of times, for a program that counts instructions: the difference
// between two numbers of runs is the cost of a run.
//
// usage: semi_global NAME RUNS HEIGHT WIDTH DISPARITIES PATHS
//   NAME   a variant; PATHS is 8 or 4
#include "qx_utils/stereo/kernels/semi_global.h"

#include <omp.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace qx::utils::stereo;  // NOLINT(google-build-using-namespace): a program of one page

std::size_t Number(const char* text) { return std::strtoul(text, nullptr, 10); }

const SemiGlobalKernel* Find(const std::string& name) {
  std::size_t count = 0;
  const SemiGlobalVariant* table = SemiGlobalVariants(&count);
  for (std::size_t v = 0; v < count; ++v) {
    if (name == table[v].name) return table[v].kernel;
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) return 2;
  const SemiGlobalKernel* const kernel = Find(argv[1]);
  if (kernel == nullptr) return 2;
  const std::size_t height = Number(argv[3]), width = Number(argv[4]),
                    disparities = Number(argv[5]);
  std::mt19937 random(1);
  std::vector<std::int8_t> volume(height * width * disparities);
  for (auto& value : volume) value = static_cast<std::int8_t>(random() % 140) - 13;
  std::vector<std::uint8_t> grey(height * width);
  for (auto& value : grey) value = static_cast<std::uint8_t>(random());
  std::vector<std::uint16_t> disparity(grey.size());
  const SemiGlobalJob job{volume.data(),
                          {grey.data(), width, width, height},
                          width,
                          height,
                          disparities,
                          0,
                          kDefaultSlant,
                          kDefaultJump,
                          static_cast<int>(Number(argv[6]))};
  SemiGlobalScratch scratch;
  omp_set_num_threads(1);
  for (std::size_t run = 0; run < Number(argv[2]); ++run) {
    MatchVolume(*kernel, job, {}, scratch, disparity.data(), nullptr);
  }
  return 0;
}
