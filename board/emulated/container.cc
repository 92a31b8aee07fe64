#include "board/emulated/container.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <stdexcept>

namespace qx::board {
namespace {

constexpr std::uint32_t kRegisterBytes = 4;

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error(what); }

void CheckArguments(const Container& container) {
  for (std::size_t i = 0; i < container.arguments.size(); ++i) {
    const auto& argument = container.arguments[i];
    const std::string name = "argument " + std::to_string(i);
    if (argument.offset % kRegisterBytes != 0 || argument.offset == 0 ||
        argument.offset >= kPageBytes) {
      Fail(name + ": the offset must be a multiple of 4 between 4 and 4092");
    }
    for (std::size_t k = 0; k < i; ++k) {
      if (container.arguments[k].offset == argument.offset) Fail(name + ": offset used twice");
    }
    const bool known = std::any_of(container.memory.begin(), container.memory.end(),
                                   [&](const auto& m) { return m.group == argument.group; });
    if (!known) Fail(name + ": no memory group " + std::to_string(argument.group));
  }
}

struct Range {
  std::uint64_t base, size;
};

bool Overlap(const Range& a, const Range& b) {
  return a.base < b.base + b.size && b.base < a.base + a.size;
}

void CheckMemory(const Container& container) {
  if (container.base_address > kPhysicalMemoryBytes - kRegisterBlockBytes) {
    Fail("\"base_address\" leaves no room for the registers below 64 GiB");
  }
  std::vector<Range> taken = {{PageOf(container.base_address), kRegisterBlockBytes}};
  for (const auto& memory : container.memory) {
    const std::string name = "memory group " + std::to_string(memory.group);
    if (memory.base % kPageBytes != 0 || memory.size % kPageBytes != 0 || memory.size == 0) {
      Fail(name + ": base and size must be multiples of 4096, and the size not zero");
    }
    if (memory.size > kBufferMemoryEnd || memory.base > kBufferMemoryEnd - memory.size) {
      Fail(name + ": must be below 4 GiB");
    }
    const Range range{memory.base, memory.size};
    for (const Range& other : taken) {
      if (Overlap(range, other)) Fail(name + ": overlaps another group or the registers");
    }
    taken.push_back(range);
  }
}

}  // namespace

std::string GeometryFault(const Container& container) {
  const auto& g = container.geometry;
  if (g.height == 0 || g.width == 0 || g.channels == 0 || g.disparities == 0) {
    return "no dimension of the geometry may be zero";
  }
  constexpr std::uint64_t kLimit = std::numeric_limits<std::int32_t>::max();
  const std::uint64_t pixels = std::uint64_t{g.height} * g.width;
  if (pixels > kLimit / g.channels || pixels > kLimit / g.disparities) {
    return "the geometry needs a buffer of more than 2^31 - 1 bytes";
  }
  const std::uint64_t bytes[] = {pixels * g.channels, pixels * g.channels, pixels * g.disparities};
  for (const auto& memory : container.memory) {
    std::uint64_t needed = 0;
    for (std::size_t i = 0; i < std::size(bytes); ++i) {
      if (container.arguments[i].group == memory.group) needed += RoundUpToPages(bytes[i]);
    }
    if (needed > memory.size) {
      return "the geometry's buffers do not fit memory group " + std::to_string(memory.group) +
             ": they need " + std::to_string(needed) + " bytes";
    }
  }
  return "";
}

Container ParseContainer(const std::string& text) {
  Container container = ReadContainer(text);
  CheckMemory(container);
  CheckArguments(container);
  const std::string fault = GeometryFault(container);
  if (!fault.empty()) Fail(fault);
  container.identity = text;
  return container;
}

Container BuiltInContainer(const emulated_board::Geometry& g) {
  Container container;
  container.geometry = g;
  container.identity = "built-in " + std::to_string(g.height) + 'x' + std::to_string(g.width) +
                       'x' + std::to_string(g.channels) + 'x' + std::to_string(g.disparities);
  return container;
}

}  // namespace qx::board
