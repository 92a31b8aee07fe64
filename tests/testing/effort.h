// How much the tests do that could go on for ever.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace qx::testing {

// QXTOOLS_TEST_EFFORT: how many times as much as in an ordinary run, which is 1.
inline std::size_t Effort() {
  const char* const effort = std::getenv("QXTOOLS_TEST_EFFORT");
  return effort == nullptr ? 1 : std::max(1UL, std::strtoul(effort, nullptr, 10));
}

// Returns: the step of a loop that an ordinary run takes in steps of `ordinary`; at least 1.
inline std::size_t Stride(std::size_t ordinary) {
  return std::max<std::size_t>(1, ordinary / Effort());
}

}  // namespace qx::testing
