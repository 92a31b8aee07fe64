// The container that an emulated board is programmed with: a small JSON file that declares what a
// bitstream's metadata would (docs/fpga.md shows one).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "qxtools/emulated_board.h"

namespace qx::board {

constexpr std::uint64_t kPhysicalMemoryBytes = std::uint64_t{1} << 32;
constexpr std::uint64_t kPageBytes = 4096;
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

// Where the registers of the unit are: its page; offsets count from the start of the page.
inline std::uint64_t PageOf(std::uint64_t address) { return address & ~(kPageBytes - 1); }
inline std::uint64_t RoundUpToPages(std::uint64_t bytes) { return PageOf(bytes + kPageBytes - 1); }

// Throws std::runtime_error that says which part is wrong. ReadContainer() reads the text, without
// a look at whether the values fit together; ParseContainer() does both.
Container ReadContainer(const std::string& text);
Container ParseContainer(const std::string& text);
Container BuiltInContainer(const emulated_board::Geometry& geometry);

// Returns: what is wrong with a container's geometry, empty when nothing is: a dimension of zero,
// or buffers for which its memory groups have no room.
std::string GeometryFault(const Container& container);

}  // namespace qx::board
