// The driver of semi-global matching's vector kernels, shared by the instruction sets.
//
// A source file includes this header and gives the driver its primitives in a struct `Isa`:
//
//   Vector, Quad             register types: unsigned bytes; a pixel's four minima
//   kBytes                   bytes of a vector
//   Counts                   numbers of vectors a pixel may have: Numbers<...>, ascending, the last
//                            one for 256 cells
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
//   FirstLeast(cells, minima)  index of the first of the smallest cells in an array of vectors;
//                            `minima` has the smallest of each lane
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/stereo/kernels/semi_global_paths-inl.h"
#include "qx_utils/stereo/kernels/semi_global_selection-inl.h"

namespace qx::utils::stereo {
namespace {

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
