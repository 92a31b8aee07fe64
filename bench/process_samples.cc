#include "bench/process_samples.h"

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace qx::bench {
namespace {

long CountEntries(const char* folder) {
  DIR* const directory = opendir(folder);
  if (directory == nullptr) return -1;
  long count = 0;
  while (readdir(directory) != nullptr) ++count;  // NOLINT(concurrency-mt-unsafe): our own stream
  closedir(directory);
  return count - 2;  // "." and ".."
}

}  // namespace

Sample TakeSample() {
  malloc_trim(0);
#if __GLIBC_PREREQ(2, 33)
  const struct mallinfo2 heap = mallinfo2();
#else
  const struct mallinfo heap = mallinfo();  // in 32 bits, which is enough for differences here
#endif
  std::ifstream statm("/proc/self/statm");
  long total = 0, resident = 0;
  statm >> total >> resident;
  std::ifstream maps("/proc/self/maps");
  const auto lines = std::count(std::istreambuf_iterator<char>(maps), {}, '\n');
  return {{static_cast<long>((heap.uordblks + heap.hblkhd) / 1024),
           resident * (sysconf(_SC_PAGESIZE) / 1024), CountEntries("/proc/self/fd") - 1,
           CountEntries("/proc/self/task"), static_cast<long>(lines)}};
}

bool Judge(const std::vector<Sample>& samples) {
  const std::size_t warm_up = samples.size() / 5;
  bool flat = true;
  for (std::size_t what = 0; what < Sample::kCount; ++what) {
    std::vector<long> values;
    for (std::size_t i = warm_up; i < samples.size(); ++i)
      values.push_back(samples[i].values[what]);
    const auto quarter = static_cast<std::ptrdiff_t>((values.size() + 3) / 4);
    const long before = *std::max_element(values.begin(), values.begin() + quarter);
    const long after = *std::min_element(values.end() - quarter, values.end());
    const long first = values.front(), last = values.back();
    std::sort(values.begin(), values.end());
    const bool grew = after > before + Sample::kSlack[what];
    flat = flat && !grew;
    std::printf("%-13s first %8ld  median %8ld  last %8ld  %s\n", Sample::kNames[what], first,
                values[values.size() / 2], last, grew ? "GREW" : "flat");
  }
  return flat;
}

}  // namespace qx::bench
