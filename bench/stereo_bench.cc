// Measures StereoMatcher against OpenCV's matchers, in one process on the same pairs, and prints
// times, stages, ratios and accuracy, for one and for two threads and each instruction set.
//
// usage: stereo_bench [ROUNDS] [FOLDER:DISPARITIES:SCALE]...
//
// Without folders the pair in samples/ is taken, and parts of it in usual camera sizes. See
// stereo_scenes.h for what a folder holds. With QXTOOLS_FORCE_ISA only that instruction set is run.
#include <omp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/stereo_limit.h"
#include "bench/stereo_opencv.h"
#include "bench/stereo_scenes.h"
#include "qxtools/instruction_sets.h"
#include "qxtools/stereo_matcher.h"
#include "tools/stereo_pipeline.h"

namespace qx::bench {
namespace {

using utils::stereo::StereoMatcher;
using utils::stereo::StereoOptions;
using utils::stereo::StereoTimes;

// A matcher and what its rounds took.
struct Contender {
  std::string name;
  std::function<void()> run;
  std::function<tools::DisparityImage()> result;
  std::function<StereoTimes()> stages;  // of the last run; empty for a rival
  std::vector<double> seconds = {};
  StereoTimes best_stages = {};
};

tools::DisparityImage ImageOf(const velkar::vision::ImageFrame& map) {
  tools::DisparityImage image(static_cast<int>(map.Width()), static_cast<int>(map.Height()));
  std::memcpy(image.values.data(), map.Data(), image.values.size() * sizeof(std::uint16_t));
  return image;
}

// The same filling for all.
tools::DisparityImage Fill(tools::DisparityImage map) {
  const auto frame = velkar::vision::ImageFrameImpl::Create(
      kQXPixelFormatGray16, reinterpret_cast<std::uint8_t*>(map.values.data()),
      static_cast<std::uint32_t>(map.height), static_cast<std::uint32_t>(map.width), 1);
  return ImageOf(*utils::stereo::FillDisparities(frame));
}

Contender Ours(const Scene& scene, int paths) {
  StereoOptions options;
  options.disparities = scene.disparities;
  options.paths = paths;
  const auto matcher = std::make_shared<StereoMatcher>(options);
  const auto last = std::make_shared<utils::stereo::StereoResult>();
  return {"qxtools, " + std::to_string(paths) + " paths",
          [=] { *last = matcher->Match(scene.left, scene.right); },
          [=] { return ImageOf(*last->disparity); }, [=] { return matcher->LastTimes(); }};
}

double Seconds(const std::function<void()>& run) {
  const auto start = std::chrono::steady_clock::now();
  run();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// OpenMP's threads wait awake for a while after their work; they must not take the processor from
// the contender that comes next.
void LetThreadsSleep() { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double Best(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

// Rounds in which each runs once, in another order each time; the first one does not count.
void RunRounds(std::vector<Contender>& contenders, int rounds) {
  std::vector<std::size_t> order(contenders.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::mt19937 random(1);
  for (int round = 0; round <= rounds; ++round) {
    std::shuffle(order.begin(), order.end(), random);
    for (const std::size_t i : order) {
      Contender& contender = contenders[i];
      LetThreadsSleep();
      const double seconds = Seconds(contender.run);
      if (round == 0) continue;
      const bool best = contender.seconds.empty() || seconds < Best(contender.seconds);
      contender.seconds.push_back(seconds);
      if (best && contender.stages) contender.best_stages = contender.stages();
    }
  }
}

// Returns: the median over the rounds of the first one's time divided by the other's.
double PairedRatio(const Contender& first, const Contender& other) {
  std::vector<double> ratios(first.seconds.size());
  std::transform(first.seconds.begin(), first.seconds.end(), other.seconds.begin(), ratios.begin(),
                 std::divides<>());
  return Median(ratios);
}

void PrintAccuracy(const Contender& contender, const Scene& scene) {
  if (scene.truth.values.empty()) return;
  const tools::DisparityImage map = contender.result();
  for (const tools::DisparityImage& image : {map, Fill(map)}) {
    const auto shares = tools::Evaluate(image, scene.truth, scene.truth_scale);
    std::printf("  %5.1f %5.1f %5.1f", 100 * shares.missing, 100 * shares.off_1,
                100 * shares.off_2);
  }
}

void PrintStages(const Contender& contender) {
  const StereoTimes& s = contender.best_stages;
  std::printf(
      "  %-18s features %.2f, cost %.2f, aggregation %.2f, selection %.2f, filling %.2f ms\n", "",
      s.features * 1e3, s.cost * 1e3, s.aggregation * 1e3, s.selection * 1e3, s.filling * 1e3);
}

void PrintTable(const Scene& scene, int threads, const std::string& isa,
                const std::vector<Contender>& contenders) {
  std::printf("\n%s, %u x %u, %d disparities, %s, %d thread%s\n", scene.name.c_str(),
              scene.left->Width(), scene.left->Height(), scene.disparities, isa.c_str(), threads,
              threads == 1 ? "" : "s");
  std::printf("  %-18s %8s %8s  %13s", "", "best ms", "median", "ours / theirs");
  if (!scene.truth.values.empty()) std::printf("  %17s  %17s", "% none >1 >2", "filled");
  std::printf("\n");
  for (const Contender& contender : contenders) {
    std::printf("  %-18s %8.2f %8.2f", contender.name.c_str(), Best(contender.seconds) * 1e3,
                Median(contender.seconds) * 1e3);
    if (contender.stages) {
      std::printf("  %13s", "");
    } else {
      const Contender& ours = contenders.front();
      std::printf("  %6.2f %6.2f", Best(ours.seconds) / Best(contender.seconds),
                  PairedRatio(ours, contender));
    }
    PrintAccuracy(contender, scene);
    std::printf("\n");
    if (contender.stages) PrintStages(contender);
  }
}

void PrintLimit(const AggregationSpeed& speed) {
  std::printf("  aggregation and selection alone: %.2f ms, %.2f G values/s", speed.seconds * 1e3,
              speed.values * 1e-9);
  if (speed.bound > 0) {
    std::printf(", %.0f %% of the bound that docs/stereo.md derives",
                100 * speed.values / speed.bound);
  }
  std::printf("\n");
}

void Measure(const Scene& scene, int threads, int rounds, const std::string& isa) {
  omp_set_num_threads(threads);
  SetOpenCvThreads(threads);
  std::vector<Contender> contenders = {Ours(scene, 8), Ours(scene, 4)};
  for (const StereoRival& rival : OpenCvMatchers(scene)) {
    contenders.push_back({"OpenCV " + rival.name, rival.run, rival.result, nullptr});
  }
  RunRounds(contenders, rounds);
  PrintTable(scene, threads, isa, contenders);
  PrintLimit(MeasureAggregation(scene, rounds));
}

// Runs this program with one instruction set, which is chosen once for a process. Returns whether
// that succeeded.
bool RunWith(const std::string& isa, char** argv) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    setenv("QXTOOLS_FORCE_ISA", isa.c_str(), 1);
    execv("/proc/self/exe", argv);
    _exit(127);
  }
  int status = 1;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

// The instruction sets that have kernels of their own here, best first.
std::vector<std::string> InstructionSetsToMeasure() {
#if defined(__x86_64__)
  std::vector<std::string> names = {"avx512vnni", "avx2"};
#else
  std::vector<std::string> names = {"neon_dotprod", "neon"};
#endif
  const auto runs_here = [sets = utils::InstructionSets()](const std::string& name) {
    return std::any_of(sets.begin(), sets.end(), [&](const utils::InstructionSet& set) {
      return set.supported && set.name == name;
    });
  };
  names.erase(std::stable_partition(names.begin(), names.end(), runs_here), names.end());
  return names;
}

std::vector<Scene> ScenesOf(const std::vector<std::string>& specs) {
  std::vector<Scene> scenes;
  scenes.reserve(specs.size() + 3);
  for (const std::string& spec : specs) scenes.push_back(LoadScene(spec));
  if (scenes.empty()) scenes.push_back(LoadScene(QXTOOLS_SAMPLES_DIR "/aloe:112:2"));
  scenes.push_back(CutScene(scenes.front(), 640, 480, 128));
  scenes.push_back(CutScene(scenes.front(), 1280, 720, 128));
  return scenes;
}

int Main(int argc, char** argv) {
  const char* const forced = std::getenv("QXTOOLS_FORCE_ISA");
  if (forced == nullptr) {
    std::printf(
        "Ratios: of the best times, and the median of the rounds' ratios. Shares in %% of the\n"
        "pixels whose true disparity is known: without a disparity, off by more than 1 pixel, off\n"
        "by more than 2, before and after filling.\n");
    bool good = true;
    for (const std::string& isa : InstructionSetsToMeasure()) good = RunWith(isa, argv) && good;
    return good ? 0 : 1;
  }
  const bool has_rounds = argc > 1 && std::strchr(argv[1], ':') == nullptr;
  const int rounds = has_rounds ? std::max(1, std::atoi(argv[1])) : 9;
  for (const Scene& scene : ScenesOf({argv + (has_rounds ? 2 : 1), argv + argc})) {
    for (const int threads : {1, 2}) Measure(scene, threads, rounds, forced);
  }
  return 0;
}

}  // namespace
}  // namespace qx::bench

int main(int argc, char** argv) {
  try {
    return qx::bench::Main(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "stereo_bench: %s\n", error.what());
    return 1;
  }
}
