#include "bench/interleaved.h"

#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <numeric>
#include <random>

namespace qx::bench {
namespace {

// One run takes at least this long, by repetition, to stay clear of the clock's own cost.
constexpr double kMinSeconds = 200e-6;

// The last-level cache takes a few rounds to give up what the contender before left there.
constexpr int kUntimedRuns = 3;

double ThreadSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double Seconds(const std::function<void()>& run, int repeats) {
  for (int i = 0; i < kUntimedRuns; ++i) run();
  const double start = ThreadSeconds();
  for (int i = 0; i < repeats; ++i) run();
  return (ThreadSeconds() - start) / repeats;
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Moving to another core in the middle would charge one contender for the cold caches.
void StayOnThisCore() {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(static_cast<std::size_t>(sched_getcpu()), &cores);
  if (sched_setaffinity(0, sizeof(cores), &cores) != 0) std::puts("not pinned to a core");
}

}  // namespace

void RunInterleaved(const std::string& title, std::size_t bytes,
                    const std::vector<Contender>& contenders, int rounds) {
  StayOnThisCore();
  const std::size_t count = contenders.size();
  const int repeats = 1 + static_cast<int>(kMinSeconds / Seconds(contenders[0].run, 3));
  std::vector<std::vector<double>> times(count), ratios(count);
  std::vector<std::size_t> order(count);
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::mt19937 random(1);
  for (int round = 0; round < rounds; ++round) {
    std::vector<double> now(count);
    std::shuffle(order.begin(), order.end(), random);
    for (const std::size_t i : order) now[i] = Seconds(contenders[i].run, repeats);
    for (std::size_t i = 0; i < count; ++i) {
      times[i].push_back(now[i]);
      ratios[i].push_back(now[i] / now[0]);
    }
  }
  std::printf("\n%s, %zu bytes read and written, medians of %d rounds\n", title.c_str(), bytes,
              rounds);
  std::printf("  %-44s %10s %8s %14s\n", "", "us", "GB/s", "time / first's");
  for (std::size_t i = 0; i < count; ++i) {
    const double seconds = Median(times[i]);
    std::printf("  %-44s %10.1f %8.2f %14.2f\n", contenders[i].name.c_str(), seconds * 1e6,
                static_cast<double>(bytes) / seconds / 1e9, Median(ratios[i]));
  }
}

void Require(bool good, const std::string& what) {
  if (good) return;
  std::fprintf(stderr, "wrong result: %s\n", what.c_str());
  std::exit(1);
}

Pages MakePages(std::size_t bytes) {
  constexpr std::size_t kPage = 4096;
  const std::size_t whole = (bytes + kPage - 1) / kPage * kPage;
  auto* data = static_cast<std::uint8_t*>(std::aligned_alloc(kPage, whole));
  if (data == nullptr) throw std::bad_alloc();
  for (std::size_t i = 0; i < whole; ++i) data[i] = static_cast<std::uint8_t>(i * 131 + (i >> 12));
  return {data, std::free};
}

}  // namespace qx::bench
