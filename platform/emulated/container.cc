#include "platform/emulated/container.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace qx {
namespace platform {
namespace {

using nlohmann::json;

constexpr char kFormat[] = "qxtools emulated container 1";
constexpr std::uint32_t kRegisterBytes = 4;

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error(what); }

// JSON has no hexadecimal numbers, so "0xA0000000" is accepted as a string.
std::uint64_t ParseNumber(const json& value, const std::string& name) {
  if (value.is_number_unsigned()) return value.get<std::uint64_t>();
  if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    char* end = nullptr;
    errno = 0;
    const std::uint64_t number = std::strtoull(text.c_str(), &end, 16);
    const bool hexadecimal = text.compare(0, 2, "0x") == 0 && text.size() > 2;
    if (hexadecimal && errno == 0 && end == text.c_str() + text.size()) return number;
  }
  Fail('"' + name + "\" must be a non-negative number or a string like \"0x10\"");
}

std::uint64_t NumberOf(const json& object, const std::string& name) {
  return ParseNumber(object.at(name), name);
}

std::uint32_t WordOf(const json& object, const std::string& name) {
  const std::uint64_t number = NumberOf(object, name);
  if (number > std::numeric_limits<std::uint32_t>::max()) Fail('"' + name + "\" exceeds 32 bits");
  return static_cast<std::uint32_t>(number);
}

void ReadArguments(const json& list, Container& container) {
  if (!list.is_array() || list.size() != container.arguments.size()) {
    Fail("\"arguments\" must list the left, right and output address and the exponent");
  }
  for (std::size_t i = 0; i < list.size(); ++i) {
    container.arguments[i] = {WordOf(list[i], "offset"), WordOf(list[i], "group")};
  }
}

Container ReadContainer(const json& root) {
  if (root.at("format") != kFormat) Fail(std::string("\"format\" must be \"") + kFormat + '"');
  Container container;
  container.kernel = root.at("kernel").get<std::string>();
  container.instance = root.at("instance").get<std::string>();
  container.base_address = NumberOf(root, "base_address");
  const json& geometry = root.at("geometry");
  container.geometry = {WordOf(geometry, "height"), WordOf(geometry, "width"),
                        WordOf(geometry, "channels"), WordOf(geometry, "disparities")};
  ReadArguments(root.at("arguments"), container);
  container.memory.clear();
  for (const json& group : root.at("memory")) {
    container.memory.push_back(
        {WordOf(group, "group"), NumberOf(group, "base"), NumberOf(group, "size")});
  }
  return container;
}

void CheckArguments(const Container& container) {
  for (std::size_t i = 0; i < container.arguments.size(); ++i) {
    const auto& argument = container.arguments[i];
    const std::string name = "argument " + std::to_string(i);
    if (argument.offset % kRegisterBytes != 0 || argument.offset == 0 ||
        argument.offset >= kRegisterBlockBytes) {
      Fail(name + ": the offset must be a multiple of 4 between 4 and 65532");
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
    Fail("\"base_address\" leaves no room for the registers below 4 GiB");
  }
  std::vector<Range> taken = {{PageOf(container.base_address), kRegisterBlockBytes}};
  for (const auto& memory : container.memory) {
    const std::string name = "memory group " + std::to_string(memory.group);
    if (memory.base % kPageBytes != 0 || memory.size % kPageBytes != 0 || memory.size == 0) {
      Fail(name + ": base and size must be multiples of 4096, and the size not zero");
    }
    if (memory.size > kPhysicalMemoryBytes || memory.base > kPhysicalMemoryBytes - memory.size) {
      Fail(name + ": must lie below 4 GiB");
    }
    const Range range{memory.base, memory.size};
    for (const Range& other : taken) {
      if (Overlap(range, other)) Fail(name + ": overlaps another group or the registers");
    }
    taken.push_back(range);
  }
}

}  // namespace

std::string GeometryFault(const emulated_board::Geometry& g) {
  if (g.height == 0 || g.width == 0 || g.channels == 0 || g.disparities == 0) {
    return "no dimension of the geometry may be zero";
  }
  constexpr std::uint64_t kLimit = std::numeric_limits<std::int32_t>::max();
  const std::uint64_t pixels = std::uint64_t{g.height} * g.width;
  if (pixels > kLimit / g.channels || pixels > kLimit / g.disparities) {
    return "the geometry needs a buffer of more than 2^31 - 1 bytes";
  }
  return "";
}

Container ParseContainer(const std::string& text) {
  try {
    Container container = ReadContainer(json::parse(text));
    const std::string fault = GeometryFault(container.geometry);
    if (!fault.empty()) Fail(fault);
    CheckMemory(container);
    CheckArguments(container);
    container.identity = text;
    return container;
  } catch (const json::exception& error) {
    throw std::runtime_error(error.what());
  }
}

Container BuiltInContainer(const emulated_board::Geometry& g) {
  Container container;
  container.geometry = g;
  container.identity = "built-in " + std::to_string(g.height) + 'x' + std::to_string(g.width) +
                       'x' + std::to_string(g.channels) + 'x' + std::to_string(g.disparities);
  return container;
}

}  // namespace platform
}  // namespace qx
