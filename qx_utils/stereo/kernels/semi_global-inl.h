// The driver of semi-global matching's vector kernels, shared by the instruction sets.
//
// A source file includes this header and gives the driver its primitives in a struct `Isa`:
//
//   Vector, Quad             register types: unsigned bytes; a pixel's four minima
//   kBytes                   bytes of a vector
//   Counts                   numbers of vectors a pixel may have: Numbers<...>, ascending, 256
//   cells
//                            at the end
//   kTail                    how many vectors may reach past the last disparity
//   Load, Store              anywhere in memory
//   Set                      a byte in all lanes
//   Splat, Broadcast         what a byte is kept as so that it can be read into all lanes
//   Splatter(bytes, count, to)  makes splats of bytes; reads and writes up to kChunk of them
//   Min, Max, Add, Subtract, AddSaturated
//   Average                  rounded up
//   Blend(mask, set, clear)  bytes of `set` where the mask's are 255, of `clear` where they are 0
//   Cost(correlation)        (128 - correlation) / 2
//   Up(before, v)            v moved up by a lane; the last lane of `before` comes first
//   Down(v, after)           v moved down by a lane; the first lane of `after` comes last
//   Prices(a, b, table)      table[min(|a - b| / kGreyPerPrice, kJumpPrices - 1)]
//   Minima(a, b, c, d)       the minimum of each, in this order
//   StoreMinima(to, quad), BroadcastFirst(quad)
//   Least(v)                 the minimum
//   FirstLeast<kVectors>(cells)  index of the first of the smallest cells
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/stereo/kernels/semi_global_rows.h"

#define QXTOOLS_INLINE __attribute__((always_inline)) inline
#define QXTOOLS_INLINE_BODY __attribute__((always_inline))  // of a lambda

namespace qx::utils::stereo {
namespace {

template <std::size_t kNumber>
struct Index {
  static constexpr std::size_t kValue = kNumber;
};

// Calls body(Index<0>) .. body(Index<kCount - 1>): arrays of registers need constant indices.
template <std::size_t kCount, typename Body, std::size_t kFirst = 0>
QXTOOLS_INLINE void Unroll(const Body& body) {
  if constexpr (kFirst < kCount) {
    body(Index<kFirst>());
    Unroll<kCount, Body, kFirst + 1>(body);
  }
}

template <std::size_t... kNumbers>
struct Numbers {};

inline constexpr std::size_t kMostCells = 256;

// Bytes that are 255 from the place kMostCells on, or there and at its two neighbours only: what is
// loaded from kMostCells - d on is a mask of the cells from d on, or around d.
struct Masks {
  std::uint8_t from[2 * kMostCells + 1];
  std::uint8_t around[2 * kMostCells + 1];
};

constexpr Masks MakeMasks() {
  Masks masks{};
  for (std::size_t i = kMostCells; i <= 2 * kMostCells; ++i) masks.from[i] = 255;
  for (std::size_t i = kMostCells - 1; i <= kMostCells + 1; ++i) masks.around[i] = 255;
  return masks;
}

inline constexpr Masks kMasks = MakeMasks();

// Columns that are prepared together.
inline constexpr std::size_t kChunk = 64;

// What a path pays for a jump to each of a chunk's columns. `any` is the cost of the cheapest path
// that jumps, `least` that of the cheapest path before.
template <typename Value>
struct Jumps {
  Value horizontal[kChunk];  // prices
  Value any[kRowPaths][kChunk];
  Value least[kRowPaths][kChunk];
};

// Jumps as they are broadcast. Instruction sets that broadcast from memory without a shuffle only
// in words have every byte four times.
template <typename Isa>
using Splats = Jumps<typename Isa::Splat>;

// Columns first .. first + count - 1 of a row, whose path costs follow each other in memory.
struct Segment {
  std::size_t first;
  std::size_t count;  // at most kChunk
};

template <typename Isa, bool kDiagonals>
QXTOOLS_INLINE void PrepareJumps(const SemiGlobalPlan& plan, const PassRow& row,
                                 const Segment& segment, Splats<Isa>& splats) {
  alignas(kSemiGlobalAlignment) std::uint8_t any[kChunk], least[kChunk];
  const std::uint8_t* const grey = row.grey + segment.first;
  for (std::size_t j = 0; j < segment.count; j += Isa::kBytes) {
    const auto before = Isa::Load(grey + j - row.step);
    Isa::Store(any + j, Isa::Prices(Isa::Load(grey + j), before, plan.prices));
  }
  Isa::Splatter(any, segment.count, splats.horizontal);
  for (std::size_t k = kDiagonals ? 0 : 1; k < (kDiagonals ? 3 : 2); ++k) {
    const std::uint8_t* const grey_before = row.grey_before + segment.first + k - 1;
    const PathMinima* const minima = row.minima_before + segment.first + k - 1;
    for (std::size_t j = 0; j < segment.count; ++j) {
      least[j] = static_cast<std::uint8_t>(minima[j] >> (8 * (k + 1)));
    }
    for (std::size_t j = 0; j < segment.count; j += Isa::kBytes) {
      const auto price = Isa::Prices(Isa::Load(grey + j), Isa::Load(grey_before + j), plan.prices);
      Isa::Store(any + j, Isa::Add(price, Isa::Load(least + j)));
    }
    Isa::Splatter(any, segment.count, splats.any[k]);
    Isa::Splatter(least, segment.count, splats.least[k]);
  }
}

// What a pixel's paths have in common.
template <typename Isa, std::size_t kVectors>
struct Pixel {
  typename Isa::Vector cost[kVectors];
  typename Isa::Vector slant;
};

// 255 in the cells of a vector that lie past the last disparity.
template <typename Isa>
QXTOOLS_INLINE auto PastTheLast(const SemiGlobalPlan& plan, std::size_t vector) {
  return Isa::Load(kMasks.from + kMostCells - plan.disparities + vector * Isa::kBytes);
}

// Costs of the pixel in column x. Cells past the last disparity get the limit: paths through them
// are never cheaper than those that keep to the last disparity.
template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void MatchCosts(const SemiGlobalPlan& plan, const std::int8_t* correlation,
                               std::size_t x, Pixel<Isa, kVectors>& pixel) {
  constexpr std::size_t kBytes = Isa::kBytes;
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kAt = decltype(v)::kValue * kBytes;
    pixel.cost[kAt / kBytes] = Isa::Cost(Isa::Load(correlation + kAt));
  });
  if (x + 1 < plan.disparities + plan.first_disparity) {
    const std::size_t known = x < plan.first_disparity ? 0 : x + 1 - plan.first_disparity;
    const auto unknown = Isa::Set(plan.unknown_cost);
    Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
      constexpr std::size_t kAt = decltype(v)::kValue * kBytes;
      auto& cost = pixel.cost[kAt / kBytes];
      cost = Isa::Blend(Isa::Load(kMasks.from + kMostCells - known + kAt), unknown, cost);
    });
  }
  const auto limit = Isa::Set(plan.limit);
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kVector = decltype(v)::kValue;
    auto& cost = pixel.cost[kVector];
    if constexpr (kVector + Isa::kTail >= kVectors) {
      cost = Isa::Max(cost, PastTheLast<Isa>(plan, kVector));
    }
    cost = Isa::Min(cost, limit);
  });
}

// A vector of a path's costs; `below` and `above` are those of the neighbours.
template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE auto Extended(const Pixel<Isa, kVectors>& pixel, std::size_t vector,
                             typename Isa::Vector below, typename Isa::Vector same,
                             typename Isa::Vector above, typename Isa::Vector any,
                             typename Isa::Vector least) {
  const auto slanted = Isa::Add(Isa::Min(below, above), pixel.slant);
  const auto best = Isa::Min(Isa::Min(same, slanted), any);
  return Isa::Add(Isa::Subtract(best, least), pixel.cost[vector]);
}

// The path within the row, which stays in registers. Returns: the minimum of each lane.
template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE auto ExtendHorizontal(const Pixel<Isa, kVectors>& pixel, typename Isa::Vector end,
                                     typename Isa::Vector any, typename Isa::Vector least,
                                     typename Isa::Vector (&path)[kVectors]) {
  typename Isa::Vector longer[kVectors];
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kVector = decltype(v)::kValue;
    const auto before = kVector == 0 ? end : path[kVector == 0 ? 0 : kVector - 1];
    const auto after = kVector + 1 == kVectors ? end : path[(kVector + 1) % kVectors];
    longer[kVector] =
        Extended<Isa, kVectors>(pixel, kVector, Isa::Up(before, path[kVector]), path[kVector],
                                Isa::Down(path[kVector], after), any, least);
  });
  auto smallest = longer[0];
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kVector = decltype(v)::kValue;
    path[kVector] = longer[kVector];
    if constexpr (kVector > 0) smallest = Isa::Min(smallest, longer[kVector]);
  });
  return smallest;
}

// A path from the row before, in place. Returns: the minimum of each lane.
// Output: longer  the path's costs
template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE auto ExtendInPlace(const Pixel<Isa, kVectors>& pixel, typename Isa::Vector any,
                                  typename Isa::Vector least, std::uint8_t* path,
                                  typename Isa::Vector (&longer)[kVectors]) {
  constexpr std::size_t kBytes = Isa::kBytes;
  auto below = Isa::Load(path - 1);
  auto smallest = below;
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kVector = decltype(v)::kValue;
    std::uint8_t* const at = path + kVector * kBytes;
    const auto this_below = below;
    // Read before its first byte's neighbour is replaced.
    if constexpr (kVector + 1 < kVectors) below = Isa::Load(at + kBytes - 1);
    longer[kVector] = Extended<Isa, kVectors>(pixel, kVector, this_below, Isa::Load(at),
                                              Isa::Load(at + 1), any, least);
    Isa::Store(at, longer[kVector]);
    smallest = kVector == 0 ? longer[kVector] : Isa::Min(smallest, longer[kVector]);
  });
  return smallest;
}

template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void LoadAll(const std::uint8_t* from, typename Isa::Vector (&values)[kVectors]) {
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kVector = decltype(v)::kValue;
    values[kVector] = Isa::Load(from + kVector * Isa::kBytes);
  });
}

template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void StoreAll(const typename Isa::Vector (&values)[kVectors], std::uint8_t* to) {
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kVector = decltype(v)::kValue;
    Isa::Store(to + kVector * Isa::kBytes, values[kVector]);
  });
}

template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void AverageWith(const typename Isa::Vector (&other)[kVectors],
                                typename Isa::Vector (&values)[kVectors]) {
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kVector = decltype(v)::kValue;
    values[kVector] = Isa::Average(values[kVector], other[kVector]);
  });
}

// Where a segment's first pixel has its values, and how far it is to the next one's.
struct Places {
  const std::int8_t* correlation;
  std::uint8_t* halves;
  std::uint8_t* sums;
  std::uint8_t* paths[kRowPaths];
  PathMinima* minima;
  std::size_t x;  // column
  std::size_t j;  // in the chunk
};

QXTOOLS_INLINE Places PlacesOf(const SemiGlobalPlan& plan, const PassRow& row,
                               const Segment& segment) {
  Places at{};
  at.j = row.step > 0 ? 0 : segment.count - 1;
  at.x = segment.first + at.j;
  const std::size_t direct = plan.width - row.last_columns;
  at.correlation = segment.first < direct ? row.correlation + at.x * plan.disparities
                                          : row.last + (at.x - direct) * plan.disparities;
  at.halves = row.halves + at.x * plan.cells;
  at.sums = row.sums == nullptr ? nullptr : row.sums + at.x * plan.pitch;
  const std::size_t turn = row.number % plan.slots;
  at.paths[0] = row.paths[0] + (at.x + plan.slots - turn) % plan.slots * plan.pitch;
  at.paths[1] = row.paths[1] + at.x * plan.pitch;
  at.paths[2] = row.paths[2] + (at.x + turn) % plan.slots * plan.pitch;
  at.minima = row.minima + at.x;
  return at;
}

template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void StoreHalf(const SemiGlobalPlan& plan,
                              const typename Isa::Vector (&half)[kVectors], const Places& at,
                              Index<0> /*first half*/) {
  static_cast<void>(plan);
  StoreAll<Isa, kVectors>(half, at.halves);
}

// Cells past the last disparity count for nothing.
template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void StoreHalf(const SemiGlobalPlan& plan,
                              const typename Isa::Vector (&half)[kVectors], const Places& at,
                              Index<1> /*second half*/) {
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kAt = decltype(v)::kValue * Isa::kBytes;
    auto sum = Isa::AddSaturated(half[kAt / Isa::kBytes], Isa::Load(at.halves + kAt));
    if constexpr (kAt + Isa::kTail * Isa::kBytes >= kVectors * Isa::kBytes) {
      sum = Isa::Max(sum, PastTheLast<Isa>(plan, kAt / Isa::kBytes));
    }
    Isa::Store(at.sums + kAt, sum);
  });
}

// How far it is from a pixel's values to those of the next one, in the direction of the pass.
struct Strides {
  std::ptrdiff_t step, pitch, cells, disparities;
};

QXTOOLS_INLINE Strides StridesOf(const SemiGlobalPlan& plan, std::ptrdiff_t step) {
  return {step, step * static_cast<std::ptrdiff_t>(plan.pitch),
          step * static_cast<std::ptrdiff_t>(plan.cells),
          step * static_cast<std::ptrdiff_t>(plan.disparities)};
}

template <bool kCompletes>
QXTOOLS_INLINE void Advance(const Strides& by, Places& at) {
  at.correlation += by.disparities;
  at.halves += by.cells;
  if constexpr (kCompletes) at.sums += by.pitch;
  for (auto& place : at.paths) place += by.pitch;
  at.minima += by.step;
  at.x += static_cast<std::size_t>(by.step);
  at.j += static_cast<std::size_t>(by.step);
}

// Path `number` of a pixel. Returns and output: as ExtendInPlace() above.
template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE auto ExtendPath(const Pixel<Isa, kVectors>& pixel, const Splats<Isa>& jumps,
                               const Places& at, std::size_t number,
                               typename Isa::Vector (&longer)[kVectors]) {
  return ExtendInPlace<Isa, kVectors>(pixel, Isa::Broadcast(jumps.any[number] + at.j),
                                      Isa::Broadcast(jumps.least[number] + at.j), at.paths[number],
                                      longer);
}

template <typename Isa, std::size_t kVectors, bool kCompletes, bool kDiagonals>
void ExtendSegment(const SemiGlobalPlan& plan_of_all, const PassRow& row, const Segment& segment) {
  using Vector = typename Isa::Vector;
  const SemiGlobalPlan plan = plan_of_all;  // a copy, which stores of costs cannot change
  alignas(kSemiGlobalAlignment) Splats<Isa> jumps;
  PrepareJumps<Isa, kDiagonals>(plan, row, segment, jumps);
  Places at = PlacesOf(plan, row, segment);
  const Strides strides = StridesOf(plan, row.step);
  const Vector end = Isa::Set(static_cast<std::uint8_t>(255 - plan.slant));
  Vector path[kVectors];
  LoadAll<Isa, kVectors>(row.horizontal, path);
  Vector least = Isa::Set(*reinterpret_cast<const std::uint8_t*>(at.minima - strides.step));
  Pixel<Isa, kVectors> pixel{};
  pixel.slant = Isa::Set(plan.slant);
  for (std::size_t n = 0; n < segment.count; ++n) {
    MatchCosts<Isa, kVectors>(plan, at.correlation, at.x, pixel);
    Vector half[kVectors], diagonal[kVectors], longer[kVectors];
    const auto vertical = ExtendPath<Isa, kVectors>(pixel, jumps, at, 1, half);
    auto falling = vertical, rising = vertical;
    if constexpr (kDiagonals) {
      falling = ExtendPath<Isa, kVectors>(pixel, jumps, at, 0, diagonal);
      rising = ExtendPath<Isa, kVectors>(pixel, jumps, at, 2, longer);
      AverageWith<Isa, kVectors>(longer, diagonal);
    }
    const auto horizontal = ExtendHorizontal<Isa, kVectors>(
        pixel, end, Isa::Add(least, Isa::Broadcast(jumps.horizontal + at.j)), least, path);
    AverageWith<Isa, kVectors>(path, half);
    if constexpr (kDiagonals) AverageWith<Isa, kVectors>(diagonal, half);
    StoreHalf<Isa, kVectors>(plan, half, at, Index < kCompletes ? 1 : 0 > ());
    const auto minima = Isa::Minima(horizontal, falling, vertical, rising);
    Isa::StoreMinima(at.minima, minima);
    least = Isa::BroadcastFirst(minima);
    Advance<kCompletes>(strides, at);
  }
  StoreAll<Isa, kVectors>(path, row.horizontal);
}

using Extender = void (*)(const SemiGlobalPlan&, const PassRow&, const Segment&);
using Selector = void (*)(const SemiGlobalPlan&, const SelectionRow&);

template <typename Isa, std::size_t kVectors>
Extender ExtenderOf(bool completes, bool diagonals) {
  if (completes) {
    return diagonals ? ExtendSegment<Isa, kVectors, true, true>
                     : ExtendSegment<Isa, kVectors, true, false>;
  }
  return diagonals ? ExtendSegment<Isa, kVectors, false, true>
                   : ExtendSegment<Isa, kVectors, false, false>;
}

template <typename Isa, std::size_t... kCounts>
Extender ExtenderOf(std::size_t cells, bool completes, bool diagonals, Numbers<kCounts...>) {
  Extender extender = nullptr;
  ((cells == kCounts * Isa::kBytes
        ? static_cast<void>(extender = ExtenderOf<Isa, kCounts>(completes, diagonals))
        : static_cast<void>(0)),
   ...);
  return extender;
}

// Columns of a row between which the memory of a segment's values does not jump.
struct Breaks {
  std::size_t columns[3];
};

inline Breaks BreaksOf(const SemiGlobalPlan& plan, const PassRow& row) {
  const std::size_t turn = row.number % plan.slots;
  return {{turn, plan.slots - turn, plan.width - row.last_columns}};
}

// The next segment of columns first .. end - 1.
inline Segment NextSegment(const Breaks& breaks, int step, std::size_t first, std::size_t end) {
  std::size_t a = first, b = end;
  if (step > 0) {
    b = end - first > kChunk ? first + kChunk : end;
    for (const std::size_t column : breaks.columns) b = a < column && column < b ? column : b;
  } else {
    a = end - first > kChunk ? end - kChunk : first;
    for (const std::size_t column : breaks.columns) a = a < column && column < b ? column : a;
  }
  return {a, b - a};
}

template <typename Isa>
void ExtendColumns(const SemiGlobalPlan& plan, const PassRow& row, std::size_t first,
                   std::size_t end) {
  const Extender extend =
      ExtenderOf<Isa>(plan.cells, row.sums != nullptr, plan.paths == 8, typename Isa::Counts());
  const Breaks breaks = BreaksOf(plan, row);
  while (first < end) {
    const Segment segment = NextSegment(breaks, row.step, first, end);
    extend(plan, row, segment);
    if (row.step > 0) {
      first += segment.count;
    } else {
      end -= segment.count;
    }
  }
}

// Arrays of a row's pixels, in the scratch.
struct Chosen {
  std::uint8_t* right;  // the smallest sum of right pixel width - 1 - i, see below
  std::uint8_t* cell;
  std::uint8_t* below;  // sums at the cell before the chosen one, at it, and at the one after
  std::uint8_t* least;
  std::uint8_t* above;
  std::uint8_t* found;  // 1 or 0; later the smallest sum elsewhere
};

inline Chosen SplitScratch(const SemiGlobalPlan& plan, std::uint8_t* scratch) {
  const std::size_t pitch = plan.width + kSelectionSpare;
  return {scratch + kSemiGlobalAlignment,
          scratch + pitch,
          scratch + 2 * pitch,
          scratch + 3 * pitch,
          scratch + 4 * pitch,
          scratch + 5 * pitch};
}

// The smallest sum of each right pixel. Right pixels are counted from the right: left pixel x at
// disparity d is right pixel width - 1 - x + d, less the first disparity, which only moves them. So
// the cells of a left pixel are right pixels in the same order, one further on than those of the
// left pixel to its right.
template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void FindRightMinima(const SemiGlobalPlan& plan, const std::uint8_t* sums,
                                    std::uint8_t* right) {
  constexpr std::size_t kBlock = kSelectionBlock;
  __builtin_memset(right - kBlock, 255, plan.width + plan.cells + 2 * kBlock + Isa::kBytes);
  for (std::size_t x = 0; x < plan.width; x += kBlock) {
    // Of the block's last pixel, which may lie past the last column.
    std::uint8_t* const first = right + (plan.width - x) - kBlock;
    const std::uint8_t* const last = sums + (x + kBlock - 1) * plan.pitch;
    for (std::size_t at = 0; at <= kVectors * Isa::kBytes; at += Isa::kBytes) {
      auto smallest = Isa::Load(first + at);
      Unroll<kBlock>([&](auto k) QXTOOLS_INLINE_BODY {
        smallest =
            Isa::Min(smallest, Isa::Load(last + at - decltype(k)::kValue * (plan.pitch + 1)));
      });
      Isa::Store(first + at, smallest);
    }
    // GCC 12 takes what the next block reads from registers, but its vectors overlap these by
    // parts.
    __asm__ volatile("" : : : "memory");
  }
}

// Chooses each pixel's cell and tells whether the right pixel agrees.
template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void Choose(const SemiGlobalPlan& plan, const std::uint8_t* sums,
                           const Chosen& chosen) {
  for (std::size_t x = 0; x < plan.width; ++x) {
    const std::size_t cell = Isa::template FirstLeast<kVectors>(sums + x * plan.pitch);
    const std::uint8_t* const sum = sums + x * plan.pitch + cell;
    const std::uint8_t smallest = chosen.right[plan.width - 1 - x + cell];
    chosen.cell[x] = static_cast<std::uint8_t>(cell);
    chosen.below[x] = sum[-1];
    chosen.least[x] = sum[0];
    chosen.above[x] = sum[1];
    // Left pixels that meet this right pixel with a disparity that is less or more by one.
    const bool agrees = (sum[0] == smallest) | (*(sum - plan.pitch - 1) == smallest) |
                        (sum[plan.pitch + 1] == smallest);
    const bool matches = (sum[0] < 255) & (cell + plan.first_disparity <= x);
    chosen.found[x] = static_cast<std::uint8_t>(agrees & matches);
  }
}

// Without branches, which would be taken at random. The quotients are exact enough: they are either
// halves or further from one than they are rounded.
inline void Refine(const SemiGlobalPlan& plan, const Chosen& chosen, std::uint16_t* disparity) {
  const int last = static_cast<int>(plan.disparities) - 1;
  const int first = static_cast<int>(plan.first_disparity);
#pragma omp simd
  for (std::size_t x = 0; x < plan.width; ++x) {
    const int cell = chosen.cell[x];
    const int sides = chosen.below[x] + chosen.above[x] - 2 * chosen.least[x];
    const int curvature = sides > 0 ? sides : 1;
    const int inner = static_cast<int>(cell > 0) & static_cast<int>(cell < last);
    const int slope = 128 * (chosen.below[x] - chosen.above[x]) * inner;
    const float quotient = static_cast<float>(slope) / static_cast<float>(curvature);
    const int fraction = static_cast<int>(quotient + 128.5F) - 128;
    const int missing = chosen.found[x] - 1;  // 0 or -1, all bits of kNoMatch
    disparity[x] = static_cast<std::uint16_t>(((first + cell) * 256 + fraction) | missing);
  }
}

template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void Judge(const SemiGlobalPlan& plan, const std::uint8_t* sums,
                          const Chosen& chosen, const std::uint16_t* disparity,
                          std::uint8_t* confidence) {
  std::uint8_t* const elsewhere = chosen.found;
  for (std::size_t x = 0; x < plan.width; ++x) {
    const std::uint8_t* const around = kMasks.around + kMostCells - chosen.cell[x];
    auto smallest = Isa::Set(255);
    for (std::size_t at = 0; at < kVectors * Isa::kBytes; at += Isa::kBytes) {
      const auto sum = Isa::Load(sums + x * plan.pitch + at);
      smallest = Isa::Min(smallest, Isa::Max(sum, Isa::Load(around + at)));
    }
    elsewhere[x] = Isa::Least(smallest);
  }
#pragma omp simd
  for (std::size_t x = 0; x < plan.width; ++x) {
    const int second = elsewhere[x];
    const int margin = second > chosen.least[x] ? second - chosen.least[x] : 0;
    const float divisor = static_cast<float>(second > 0 ? second : 1);
    const int share = static_cast<int>(static_cast<float>(254 * margin) / divisor);
    confidence[x] = static_cast<std::uint8_t>(disparity[x] != kNoMatch ? 1 + share : 0);
  }
}

template <typename Isa, std::size_t kVectors>
void SelectRow(const SemiGlobalPlan& plan_of_all, const SelectionRow& row) {
  const SemiGlobalPlan plan = plan_of_all;
  const Chosen chosen = SplitScratch(plan, row.scratch);
  FindRightMinima<Isa, kVectors>(plan, row.sums, chosen.right);
  Choose<Isa, kVectors>(plan, row.sums, chosen);
  Refine(plan, chosen, row.disparity);
  if (row.confidence == nullptr) return;
  Judge<Isa, kVectors>(plan, row.sums, chosen, row.disparity, row.confidence);
}

template <typename Isa, std::size_t... kCounts>
Selector SelectorOf(std::size_t cells, Numbers<kCounts...>) {
  Selector selector = nullptr;
  ((cells == kCounts * Isa::kBytes ? static_cast<void>(selector = SelectRow<Isa, kCounts>)
                                   : static_cast<void>(0)),
   ...);
  return selector;
}

template <typename Isa>
void SelectAny(const SemiGlobalPlan& plan, const SelectionRow& row) {
  SelectorOf<Isa>(plan.cells, typename Isa::Counts())(plan, row);
}

template <typename Isa, std::size_t... kCounts>
std::size_t FittingCells(std::size_t disparities, Numbers<kCounts...>) {
  std::size_t cells = kMostCells;
  ((kCounts * Isa::kBytes >= disparities && kCounts * Isa::kBytes < cells
        ? static_cast<void>(cells = kCounts * Isa::kBytes)
        : static_cast<void>(0)),
   ...);
  return cells;
}

template <typename Isa>
std::size_t CellsOf(std::size_t disparities) {
  return FittingCells<Isa>(disparities, typename Isa::Counts());
}

template <typename Isa>
constexpr SemiGlobalKernel kKernelOf = {Isa::kBytes, CellsOf<Isa>, ExtendColumns<Isa>,
                                        SelectAny<Isa>};

}  // namespace
}  // namespace qx::utils::stereo
