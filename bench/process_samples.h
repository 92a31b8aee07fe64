// What a process holds, sampled while it runs, and whether any of it grows.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

namespace qx::bench {

struct Sample {
  static constexpr std::size_t kCount = 5;
  static constexpr std::array<const char*, kCount> kNames = {"heap KiB", "resident KiB",
                                                             "descriptors", "threads", "mappings"};
  // What may come and go without being growth: heaps of threads that were busy at the same time.
  static constexpr std::array<long, kCount> kSlack = {64, 4096, 0, 0, 8};
  std::array<long, kCount> values;
};

// Free memory of the heap is given back first: what is kept of it depends on the past.
Sample TakeSample();

// Prints first, median and last after the warm-up: a fifth of the time. Growth is when the least
// of the last quarter is above the most of the first. Returns: whether nothing grew.
bool Judge(const std::vector<Sample>& samples);

}  // namespace qx::bench
