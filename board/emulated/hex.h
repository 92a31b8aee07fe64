#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace qx::board {

// "0x1f"
inline std::string Hex(std::uint64_t value) {
  char text[20];
  std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

}  // namespace qx::board
