// The container that programs an emulated board: a small JSON file in place of a bitstream's
// metadata (docs/fpga.md shows one).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "board/board_interface.h"
#include "qxtools/emulated_board.h"

namespace qx::board {

constexpr std::uint64_t kPhysicalMemoryBytes = std::uint64_t{1} << 36;
constexpr std::uint64_t kBufferMemoryEnd = std::uint64_t{1} << 32;  // addresses have 32 bits
constexpr std::uint64_t kRegisterBlockBytes = 65536;  // what the bus gives a compute unit

// The default values are the built-in container.
struct Container {
  struct Argument {
    std::uint32_t offset;  // of its register
    std::uint32_t group;   // memory group of its buffer
  };

  std::string kernel = "Corr";
  std::string instance = "Corr_1";
  std::uint64_t base_address = 0xA0000000;
  emulated_board::Geometry geometry;
  // Left, right and output address, exponent. 64-bit arguments are 12 bytes apart.
  std::array<Argument, 4> arguments = {{{0x10, 0}, {0x1C, 0}, {0x28, 1}, {0x34, 0}}};
  std::vector<emulated_board::MemoryGroup> memory = {{0, 0x10000000, 0x30000000},
                                                     {1, 0x40000000, 0x20000000}};
  std::string identity;  // equal for equal containers
};

// The page of an address. A unit's registers start at the page of its base address.
inline std::uint64_t PageOf(std::uint64_t address) {
  return address & ~std::uint64_t{kPageBytes - 1};
}
inline std::uint64_t RoundUpToPages(std::uint64_t bytes) { return PageOf(bytes + kPageBytes - 1); }

// Both throw std::runtime_error that says which part is wrong. ReadContainer() reads the text;
// ParseContainer() also checks that the values fit together.
Container ReadContainer(const std::string& text);
Container ParseContainer(const std::string& text);
Container BuiltInContainer(const emulated_board::Geometry& geometry);

// Returns: what is wrong with a container's geometry (a dimension is zero, or its buffers do not
// fit the memory groups), or an empty string.
std::string GeometryFault(const Container& container);

}  // namespace qx::board
