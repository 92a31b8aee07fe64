// Selection: the cell of each pixel with the smallest sum, the check against the right picture's
// pixels, and the fraction of a pixel. See semi_global-inl.h for the primitives.
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/stereo/kernels/semi_global_cells-inl.h"

namespace qx::utils::stereo {
namespace {

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
        smallest = Isa::Min(smallest, Isa::Load(last + at - k * (plan.pitch + 1)));
      });
      Isa::Store(first + at, smallest);
    }
    // GCC 12 would keep what the next block reads in registers, but its vectors overlap these only
    // in part.
    __asm__ volatile("" : : : "memory");
  }
}

// Chooses each pixel's cell and tells whether the right pixel agrees.
template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void Choose(const SemiGlobalPlan& plan, const std::uint8_t* sums,
                           const Chosen& chosen) {
  for (std::size_t x = 0; x < plan.width; ++x) {
    typename Isa::Vector cells[kVectors];
    LoadAll<Isa, kVectors>(sums + x * plan.pitch, cells);
    const std::size_t cell = Isa::FirstLeast(cells, Minimum<Isa, kVectors>(cells));
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

using Selector = void (*)(const SemiGlobalPlan&, const SelectionRow&);

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

}  // namespace
}  // namespace qx::utils::stereo
