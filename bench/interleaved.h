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

// Runs the contenders in turn, `rounds` times over and each time in another order, so that a
// disturbance of the machine falls on all of them alike. Each has untimed runs of its own first and
// so finds the caches as it leaves them. Prints for each the median processor time (other
// programs' share of the core does not count), bytes a second, and the median over the rounds of
// its time divided by the first contender's of the same round.
void RunInterleaved(const std::string& title, std::size_t bytes,
                    const std::vector<Contender>& contenders, int rounds = 41);

// Ends the program with a message when the result of a contender is not what it should be: a fast
// wrong answer wins nothing.
void Require(bool good, const std::string& what);

// Page-aligned memory, touched, so that neither page faults nor placement differ between runs.
using Pages = std::unique_ptr<std::uint8_t[], void (*)(void*)>;
Pages MakePages(std::size_t bytes);

}  // namespace qx::bench
