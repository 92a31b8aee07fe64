// Aggregation: the costs of the paths to the pixels of a row, and their average. See
// semi_global-inl.h for the primitives.
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/stereo/kernels/semi_global_cells-inl.h"

namespace qx::utils::stereo {
namespace {

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
    constexpr std::size_t kAt = v * kBytes;
    pixel.cost[kAt / kBytes] = Isa::Cost(Isa::Load(correlation + kAt));
  });
  if (x + 1 < plan.disparities + plan.first_disparity) {
    const std::size_t known = x < plan.first_disparity ? 0 : x + 1 - plan.first_disparity;
    const auto unknown = Isa::Set(plan.unknown_cost);
    Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
      constexpr std::size_t kAt = v * kBytes;
      auto& cost = pixel.cost[kAt / kBytes];
      cost = Isa::Blend(Isa::Load(kMasks.from + kMostCells - known + kAt), unknown, cost);
    });
  }
  const auto limit = Isa::Set(plan.limit);
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kVector = v;
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
    constexpr std::size_t kVector = v;
    const auto before = kVector == 0 ? end : path[kVector == 0 ? 0 : kVector - 1];
    const auto after = kVector + 1 == kVectors ? end : path[(kVector + 1) % kVectors];
    longer[kVector] =
        Extended<Isa, kVectors>(pixel, kVector, Isa::Up(before, path[kVector]), path[kVector],
                                Isa::Down(path[kVector], after), any, least);
  });
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY { path[v] = longer[v]; });
  return Minimum<Isa, kVectors>(longer);
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
    constexpr std::size_t kVector = v;
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
QXTOOLS_INLINE void AverageWith(const typename Isa::Vector (&other)[kVectors],
                                typename Isa::Vector (&values)[kVectors]) {
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kVector = v;
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
    constexpr std::size_t kAt = v * Isa::kBytes;
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

}  // namespace
}  // namespace qx::utils::stereo
