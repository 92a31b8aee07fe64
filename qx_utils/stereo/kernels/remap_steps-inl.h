// The driver of the remapping's vector kernels, shared by the instruction sets.
//
// A row is computed in steps of several groups. Where all groups of a step have windows, the
// pixels come out of these by byte permutes; otherwise they are fetched one by one into memory.
//
// A source file includes this header and gives the driver its primitives in a struct `Isa`:
//
//   kGroups                       groups of a step: 1, 2 or 4
//   Pixels                        of each pixel of a step, the left and the right neighbour
//   FromWindows(source, groups, places, above, below)   takes the Pixels of two rows from windows
//   FromPairs(pairs)              Pixels from memory: left, right of the first one, and so on
//   Blend(above, below, fx, fy, result)   writes the values of a step
//   BlendColours(above, below, fx, fy, result)   the same for kRemapGroup pixels of 3 bytes: 8
//                                 bytes for each pixel, of which the last 6 are its left and right
//                                 neighbour; may write kColourSlack bytes beyond
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/stereo/kernels/remap_fetch-inl.h"

namespace qx::utils::stereo {
namespace {

inline constexpr std::size_t kColourPair = 8;   // bytes: 2 of no account, and two pixels
inline constexpr std::size_t kColourSlack = 8;  // bytes

inline void CopyBytes(const std::uint8_t* from, std::size_t count, std::uint8_t* to) {
  for (std::size_t i = 0; i < count; ++i) to[i] = from[i];
}

// Fetches the pixels (x, y), (x + 1, y) into `above`, and those of the next row into `below`.
template <std::size_t kChannels>
QXTOOLS_INLINE void FetchPair(const GreyView& source, Position p, std::uint8_t* above,
                              std::uint8_t* below) {
  constexpr std::size_t kBytes = 2 * kChannels;
  if (IsInside(source, p)) {
    const std::uint8_t* const from = source.data + static_cast<std::size_t>(p.y) * source.pitch +
                                     static_cast<std::size_t>(p.x) * kChannels;
    __builtin_memcpy(above, from, kBytes);
    __builtin_memcpy(below, from + source.pitch, kBytes);
    return;
  }
  for (std::size_t i = 0; i < kBytes; ++i) {
    const std::ptrdiff_t x = p.x + (i < kChannels ? 0 : 1);
    above[i] = ByteAt<kChannels>(source, x, p.y, i % kChannels);
    below[i] = ByteAt<kChannels>(source, x, p.y + 1, i % kChannels);
  }
}

// Fetches the pixels of a step of which a group has no window.
template <typename Isa>
__attribute__((noinline)) void FetchStep(const RemapView& map, const GreyView& source,
                                         std::size_t at, std::uint8_t* above, std::uint8_t* below) {
  for (std::size_t i = 0; i < Isa::kGroups * kRemapGroup; ++i) {
    if (map.places[at + i] == kNoSource) {
      above[2 * i] = above[2 * i + 1] = below[2 * i] = below[2 * i + 1] = 0;
    } else {
      FetchPair<1>(source, PositionOf(map, at + i), above + 2 * i, below + 2 * i);
    }
  }
}

template <typename Isa>
QXTOOLS_INLINE bool HaveWindows(const std::uint32_t* groups) {
  std::uint32_t any = 0;
  for (std::size_t i = 0; i < Isa::kGroups; ++i) any |= groups[i];
  return (any & kScattered) == 0;
}

// Computes the kGroups * kRemapGroup pixels from pixel `at` of the map on.
template <typename Isa>
QXTOOLS_INLINE void RemapStep(const RemapView& map, const GreyView& source, std::size_t at,
                              std::uint8_t* result) {
  typename Isa::Pixels above, below;
  const std::uint32_t* const groups = map.groups + at / kRemapGroup;
  if (__builtin_expect(HaveWindows<Isa>(groups), 1)) {
    Isa::FromWindows(source, groups, map.places + at, above, below);
  } else {
    std::uint8_t pairs[2][2 * Isa::kGroups * kRemapGroup];
    FetchStep<Isa>(map, source, at, pairs[0], pairs[1]);
    above = Isa::FromPairs(pairs[0]), below = Isa::FromPairs(pairs[1]);
  }
  Isa::Blend(above, below, map.fx + at, map.fy + at, result);
}

template <typename Isa>
void RemapGrey(const RemapView& map, const GreyView& source, std::size_t first_row,
               std::size_t end_row, std::uint8_t* result) {
  constexpr std::size_t kStep = Isa::kGroups * kRemapGroup;
  const std::size_t whole = map.width / kStep * kStep;
  for (std::size_t y = first_row; y < end_row; ++y) {
    const std::size_t at = y * map.stride;
    std::uint8_t* const row = result + y * map.width;
    for (std::size_t x = 0; x < whole; x += kStep) RemapStep<Isa>(map, source, at + x, row + x);
    if (whole == map.width) continue;
    std::uint8_t last[kStep];
    RemapStep<Isa>(map, source, at + whole, last);
    CopyBytes(last, map.width - whole, row + whole);
  }
}

// Fetches the pixels of a group of three bytes each, as BlendColours() takes them.
inline void FetchColours(const RemapView& map, const GreyView& source, std::size_t at,
                         std::uint8_t* above, std::uint8_t* below) {
  const std::uint32_t group = map.groups[at / kRemapGroup];
  const std::uint8_t* const places = map.places + at;
  // Of a window that is not in the picture's first corner, the two bytes before each pixel can be
  // read as well, which makes a copy one load and one store.
  const bool has_window = (group & kScattered) == 0 && group != 0;
  const std::size_t corner =
      has_window ? (group >> 16U) * source.pitch + std::size_t{group & 0xFFFFU} * 3 - 2 : 0;
  for (std::size_t i = 0; i < kRemapGroup; ++i) {
    std::uint8_t* const to_above = above + i * kColourPair;
    std::uint8_t* const to_below = below + i * kColourPair;
    if (places[i] == kNoSource) {
      __builtin_memset(to_above, 0, kColourPair);
      __builtin_memset(to_below, 0, kColourPair);
    } else if (has_window) {
      const std::size_t row = places[i] / kWindowColumns, column = places[i] % kWindowColumns;
      const std::uint8_t* const from = source.data + corner + row * source.pitch + column * 3;
      __builtin_memcpy(to_above, from, kColourPair);
      __builtin_memcpy(to_below, from + source.pitch, kColourPair);
    } else {
      to_above[0] = to_above[1] = to_below[0] = to_below[1] = 0;
      FetchPair<3>(source, PositionOf(map, at + i), to_above + 2, to_below + 2);
    }
  }
}

// Computes the `columns` pixels, at most kRemapStep, from pixel `at` of the map on. All are fetched
// before the first is blended: bytes that have just been stored are slow to load as vectors.
template <typename Isa>
void RemapColourStep(const RemapView& map, const GreyView& source, std::size_t at,
                     std::size_t columns, std::uint8_t* result) {
  constexpr std::size_t kGroupBytes = 3 * kRemapGroup;
  std::uint8_t above[kRemapStep * kColourPair], below[kRemapStep * kColourPair];
  for (std::size_t x = 0; x < columns; x += kRemapGroup) {
    FetchColours(map, source, at + x, above + x * kColourPair, below + x * kColourPair);
  }
  std::size_t x = 0;
  const auto blend = [&](std::uint8_t* to) QXTOOLS_INLINE_BODY {
    Isa::BlendColours(above + x * kColourPair, below + x * kColourPair, map.fx + at + x,
                      map.fy + at + x, to);
  };
  for (; 3 * (columns - x) >= kGroupBytes + kColourSlack; x += kRemapGroup) blend(result + 3 * x);
  for (; x < columns; x += kRemapGroup) {
    std::uint8_t last[kGroupBytes + kColourSlack];
    blend(last);
    CopyBytes(last, 3 * Smaller(columns - x, kRemapGroup), result + 3 * x);
  }
}

template <typename Isa>
void RemapColour(const RemapView& map, const GreyView& source, std::size_t first_row,
                 std::size_t end_row, std::uint8_t* result) {
  for (std::size_t y = first_row; y < end_row; ++y) {
    for (std::size_t x = 0; x < map.width; x += kRemapStep) {
      RemapColourStep<Isa>(map, source, y * map.stride + x, Smaller(map.width - x, kRemapStep),
                           result + (y * map.width + x) * 3);
    }
  }
}

}  // namespace
}  // namespace qx::utils::stereo
