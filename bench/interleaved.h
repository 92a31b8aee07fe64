// Times several ways of doing one thing against each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qx::bench {

struct Contender {
  std::string name;
  std::function<void()> run;
};

struct Rounds {
  int count = 41;
  int warm_up = 0;       // rounds before these, which are not kept
  int untimed_runs = 0;  // of each contender at the beginning of its turn
  double seconds = 0;    // a turn takes at least as long, by repetition: no clock is for free
  bool one_core = true;  // another core in the middle would charge one contender for cold caches
};

// What one contender took in each round: seconds of a run.
struct Times {
  std::vector<double> elapsed;
  std::vector<double> processor;  // of the whole process; other programs do not count
};

// Runs the contenders in turn, round after round and each time in another order, so that a
// disturbance of the machine falls on all of them alike. Returns: the times of each.
std::vector<Times> RunInterleaved(const std::vector<Contender>& contenders, const Rounds& rounds);

double Median(std::vector<double> values);

// The median over the rounds of `values` divided by the `others` of the same round.
double MedianRatio(std::vector<double> values, const std::vector<double>& others);

// Runs the contenders, each with untimed runs of its own first, so that it finds the caches as it
// leaves them. Prints for each the median processor time, bytes a second, and the median ratio to
// the first contender's time.
void CompareThroughput(const std::string& title, std::size_t bytes,
                       const std::vector<Contender>& contenders, int rounds = 41);

// Ends the program with a message when the result of a contender is not what it should be: a fast
// wrong answer wins nothing.
void Require(bool good, const std::string& what);

// Page-aligned memory, touched, so that neither page faults nor placement differ between runs.
using Pages = std::unique_ptr<std::uint8_t[], void (*)(void*)>;
Pages MakePages(std::size_t bytes);

}  // namespace qx::bench
