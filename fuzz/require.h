// What every fuzz target states its properties with.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace qx::fuzzing {

// Ends the run, which libFuzzer reports with the input, when the property on `line` does not hold.
inline void Require(bool holds, int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "the property on line %d does not hold\n", line);
  std::abort();
}

}  // namespace qx::fuzzing
