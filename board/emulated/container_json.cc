// Reads container files, which are JSON.
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "board/emulated/container.h"

namespace qx::board {
namespace {

using nlohmann::json;

constexpr char kFormat[] = "qxtools emulated container 1";

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

Container FromJson(const json& root) {
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

}  // namespace

Container ReadContainer(const std::string& text) {
  try {
    return FromJson(json::parse(text));
  } catch (const json::exception& error) {
    throw std::runtime_error(error.what());
  }
}

}  // namespace qx::board
