#include "bench/interleaved.h"

#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <new>
#include <numeric>
#include <random>
#include <utility>

namespace qx::bench {
namespace {

double Seconds(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Turn {
  double elapsed, processor;  // seconds of a run
};

Turn TakeTurn(const Contender& contender, int untimed, int repeats) {
  for (int i = 0; i < untimed; ++i) contender.run();
  const double processor = Seconds(CLOCK_PROCESS_CPUTIME_ID);
  const double start = Seconds(CLOCK_MONOTONIC);
  for (int i = 0; i < repeats; ++i) contender.run();
  return {(Seconds(CLOCK_MONOTONIC) - start) / repeats,
          (Seconds(CLOCK_PROCESS_CPUTIME_ID) - processor) / repeats};
}

void StayOnThisCore() {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(static_cast<std::size_t>(sched_getcpu()), &cores);
  if (sched_setaffinity(0, sizeof(cores), &cores) != 0) std::puts("not pinned to a core");
}

}  // namespace

std::vector<Times> RunInterleaved(const std::vector<Contender>& contenders, const Rounds& rounds) {
  if (rounds.one_core) StayOnThisCore();
  int repeats = 1;
  if (rounds.seconds > 0) {
    const Turn turn = TakeTurn(contenders[0], rounds.untimed_runs, 3);
    repeats += static_cast<int>(rounds.seconds / turn.processor);
  }
  std::vector<Times> times(contenders.size());
  std::vector<std::size_t> order(contenders.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::mt19937 random(1);
  for (int round = -rounds.warm_up; round < rounds.count; ++round) {
    std::shuffle(order.begin(), order.end(), random);
    for (const std::size_t i : order) {
      const Turn turn = TakeTurn(contenders[i], rounds.untimed_runs, repeats);
      if (round < 0) continue;
      times[i].elapsed.push_back(turn.elapsed);
      times[i].processor.push_back(turn.processor);
    }
  }
  return times;
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double MedianRatio(std::vector<double> values, const std::vector<double>& others) {
  std::transform(values.begin(), values.end(), others.begin(), values.begin(), std::divides<>());
  return Median(std::move(values));
}

void CompareThroughput(const std::string& title, std::size_t bytes,
                       const std::vector<Contender>& contenders, int rounds) {
  Rounds how;
  how.count = rounds;
  how.untimed_runs = 3;  // the last-level cache takes a few to give up what was left there before
  how.seconds = 200e-6;
  const std::vector<Times> times = RunInterleaved(contenders, how);
  std::printf("\n%s, %zu bytes read and written, medians of %d rounds\n", title.c_str(), bytes,
              rounds);
  std::printf("  %-44s %10s %8s %14s\n", "", "us", "GB/s", "time / first's");
  for (std::size_t i = 0; i < contenders.size(); ++i) {
    const double seconds = Median(times[i].processor);
    std::printf("  %-44s %10.1f %8.2f %14.2f\n", contenders[i].name.c_str(), seconds * 1e6,
                static_cast<double>(bytes) / seconds / 1e9,
                MedianRatio(times[i].processor, times[0].processor));
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
