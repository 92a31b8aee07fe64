// Where a map's pixels come from, one at a time: for the definition, and for the vector kernels'
// groups without a window.
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/image/kernels/kernel-inl.h"
#include "qx_utils/stereo/kernels/remap.h"

namespace qx::utils::stereo {
namespace {

struct Position {
  std::ptrdiff_t x, y;
};

// Of pixel `at` of the map, which has a source.
inline Position PositionOf(const RemapView& map, std::size_t at) {
  const std::uint32_t group = map.groups[at / kRemapGroup];
  if ((group & kScattered) != 0) {
    const std::size_t first = std::size_t{group & ~kScattered} * kRemapGroup;
    const SourcePosition& position = map.scattered[first + at % kRemapGroup];
    return {position.x, position.y};
  }
  const std::uint8_t place = map.places[at];
  return {static_cast<std::ptrdiff_t>(group & 0xFFFFU) + place % 16,
          static_cast<std::ptrdiff_t>(group >> 16U) + place / 16};
}

// Whether all four pixels around a position are in the source.
inline bool IsInside(const GreyView& source, Position p) {
  return static_cast<std::size_t>(p.x) < source.width - 1 &&
         static_cast<std::size_t>(p.y) < source.height - 1;
}

// A byte of a pixel, 0 outside the source.
template <std::size_t kChannels>
std::uint8_t ByteAt(const GreyView& source, std::ptrdiff_t x, std::ptrdiff_t y,
                    std::size_t channel) {
  const auto column = static_cast<std::size_t>(x), row = static_cast<std::size_t>(y);
  if (column >= source.width || row >= source.height) return 0;
  return source.data[row * source.pitch + column * kChannels + channel];
}

}  // namespace
}  // namespace qx::utils::stereo
