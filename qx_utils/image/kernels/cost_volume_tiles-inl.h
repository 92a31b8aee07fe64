// The driver of the cost volume's vector kernels, shared by the instruction sets.
//
// For one row, sum[x][d] = left[x] . right[x - d]: a matrix product of which only the band next to
// the diagonal is wanted. The right row is packed into a panel with its columns reversed: a few
// neighbouring channels (a K group) of all columns, then the next K group of all columns. A vector
// loaded from any column on holds the right factors of one left pixel for as many neighbouring
// disparities as a vector has columns.
//
// The micro-kernel computes a register tile: Isa::kPixels left pixels times a number of vectors.
// The pixels are a vector's columns apart. What is disparity d for one of them is d plus those
// columns for the next one, so they share vectors: kPixels + vectors - 1 loads feed
// kPixels * vectors multiplications, and nothing outside the band is computed.
//
// A source file includes this header and gives the driver its primitives in a struct `Isa`:
//
//   Vector, Sum               register types: packed values, and sums of products
//   kVectorBytes              bytes of a vector
//   kGroup                    channels of a K group
//   kElementBytes             bytes of a packed value
//   kPixels                   left pixels of a tile
//   kMinVectors, kMaxVectors  vectors of each of them
//   kStep                     channels that LoadLeft() covers, in whole K groups
//   kPackedBudget             bytes of a packed panel that stay in the processor's second cache
//   kPacksLeft                whether left pixels are packed in any case, by PackPixel()
//   kPrefetches               whether software prefetching pays
//   kNarrowLimit              Store() is faster while all costs are below this, see NeedsWide()
//   Vectors(disparities, costs)            chooses the vectors of a tile; `costs` may be fewer
//   PackVector(row, column, plan, to)      packs the pixel at `column` first, then those left of it
//   Start(from)                            what a sum starts with
//   Load(from), LoadLeft(from)             a vector; a left pixel's K groups, repeated
//   MultiplyAdd<k>(left, vector, sum)      adds the products of the k-th K group of `left`
//   Store<kVectors>(plan, existing, sums, cost, step)   scales, rounds and stores a tile whose left
//                                          pixels have their costs `step` bytes apart
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/image/kernels/cost_volume.h"

#define QXTOOLS_INLINE __attribute__((always_inline)) inline
#define QXTOOLS_INLINE_BODY __attribute__((always_inline))  // of a lambda

namespace qx::utils::image {
namespace {

constexpr std::size_t RoundUp(std::size_t value, std::size_t unit) {
  return (value + unit - 1) / unit * unit;
}
constexpr std::size_t Smaller(std::size_t a, std::size_t b) { return a < b ? a : b; }
constexpr std::size_t Larger(std::size_t a, std::size_t b) { return a < b ? b : a; }

template <std::size_t kNumber>
struct Index {
  static constexpr std::size_t kValue = kNumber;
};

// Calls body(Index<0>) .. body(Index<kCount - 1>): arrays of registers need constant indices, a
// loop variable would keep them in memory.
template <std::size_t kCount, typename Body, std::size_t kFirst = 0>
QXTOOLS_INLINE void Unroll(const Body& body) {
  if constexpr (kFirst < kCount) {
    body(Index<kFirst>());
    Unroll<kCount, Body, kFirst + 1>(body);
  }
}

struct Row {
  const std::int8_t* pixels;
  std::size_t width;
  std::size_t channels;  // distance of pixels
};

// Past the end of the row the last pixel repeats; results computed from it are discarded.
QXTOOLS_INLINE const std::int8_t* PixelAt(const Row& row, std::size_t column) {
  return row.pixels + Smaller(column, row.width - 1) * row.channels;
}

// How a job is divided. Columns are computed in panels, so that scratch stays bounded, and these in
// blocks: the columns of tiles that begin within one vector.
struct Plan {
  std::size_t channels;   // in whole blocks of kCostVolumeBlock
  std::size_t vectors;    // of each pixel of a tile
  std::size_t band;       // disparities of a tile
  std::size_t cover;      // disparities that tiles compute; no pixel has more
  std::size_t costs;      // to be stored of each pixel of a tile: fewer when D is less than a band
  std::size_t history;    // right columns that a panel needs left of its first
  std::size_t panel;      // columns, in whole blocks
  std::size_t pitch;      // bytes from K group to K group of the packed right row
  std::size_t left_step;  // bytes from left pixel to left pixel, chosen for each panel
  float scale;
  bool wide;  // see NeedsWide()
};

template <typename Isa>
constexpr std::size_t kColumnBytes = Isa::kGroup* Isa::kElementBytes;
template <typename Isa>
constexpr std::size_t kVectorColumns = Isa::kVectorBytes / kColumnBytes<Isa>;
template <typename Isa>
constexpr std::size_t kBlockColumns = Isa::kPixels* kVectorColumns<Isa>;

// True if the magnitude of some cost can reach `limit`; also true if the scale is NaN.
inline bool NeedsWide(std::size_t channels, float scale, float limit) {
  constexpr float kLargestProduct = 16384.0F;  // -128 * -128
  const float magnitude = scale < 0 ? -scale : scale;
  return !(static_cast<float>(channels) * kLargestProduct * magnitude < limit);
}

template <typename Isa>
Plan PlanOf(const CostVolumeJob& job) {
  Plan plan{};
  plan.channels = job.channels / kCostVolumeBlock * kCostVolumeBlock;
  const std::size_t costs = Smaller(job.disparities, job.width);
  plan.vectors = Isa::Vectors(job.disparities, costs);
  plan.band = plan.vectors * kVectorColumns<Isa>;
  plan.cover = Smaller(RoundUp(costs, plan.band), Larger(job.disparities, plan.band));
  plan.costs = Smaller(plan.band, job.disparities);
  plan.history = RoundUp(plan.cover, kVectorColumns<Isa>);
  const std::size_t fitting = Isa::kPackedBudget / (Isa::kElementBytes * plan.channels);
  // At least half of what is packed is used for the first time.
  const std::size_t panel = fitting > 2 * plan.history ? fitting - plan.history : plan.history;
  plan.panel = RoundUp(Smaller(job.width, panel), kBlockColumns<Isa>);
  // An odd number of cache lines, so that K groups of one column spread over the cache's sets.
  const std::size_t bytes = (plan.panel + plan.history) * kColumnBytes<Isa>;
  plan.pitch =
      (RoundUp(bytes, kCostVolumeAlignment) / kCostVolumeAlignment | 1) * kCostVolumeAlignment;
  plan.scale = job.scale;
  plan.wide = NeedsWide(plan.channels, job.scale, Isa::kNarrowLimit);
  return plan;
}

// After the last K group follow the values that sums start with, like one more K group.
template <typename Isa>
std::size_t RightBytes(const Plan& plan) {
  return (plan.channels / Isa::kGroup + 1) * plan.pitch;
}

template <typename Isa, std::size_t kVectors>
using Sums = typename Isa::Sum[Isa::kPixels][kVectors];

// The micro-kernel, from the first left pixel and the first vector of the last one. Of the last
// `kSkipped` vectors nothing but zeros would come. A left pixel is loaded at its first vector, and
// the pixels count down, so that AVX2's 16 registers suffice.
template <typename Isa, std::size_t kVectors, std::size_t kSkipped>
QXTOOLS_INLINE void Multiply(const Plan& plan, const std::int8_t* left, const std::int8_t* right,
                             Sums<Isa, kVectors>& sums) {
  constexpr std::size_t kLast = Isa::kPixels - 1;
  const std::int8_t* const starts = right + plan.channels / Isa::kGroup * plan.pitch;
  const std::size_t step = kVectorColumns<Isa> * plan.left_step;
  Unroll<Isa::kPixels>([&](auto p) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kPixel = decltype(p)::kValue;
    Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
      constexpr std::size_t kVector = decltype(v)::kValue;
      sums[kPixel][kVector] = Isa::Start(starts + (kLast - kPixel + kVector) * Isa::kVectorBytes);
    });
  });
  for (std::size_t c = 0; c < plan.channels; c += Isa::kStep) {
    const std::int8_t* const from = left + c * Isa::kElementBytes;
    typename Isa::Vector values[Isa::kPixels];
    Unroll<Isa::kStep / Isa::kGroup>([&](auto g) QXTOOLS_INLINE_BODY {
      constexpr std::size_t kNumber = decltype(g)::kValue;
      Unroll<kVectors + kLast - kSkipped>([&](auto v) QXTOOLS_INLINE_BODY {
        constexpr std::size_t kVector = decltype(v)::kValue;
        const typename Isa::Vector vector = Isa::Load(right + kVector * Isa::kVectorBytes);
        Unroll<Isa::kPixels>([&](auto k) QXTOOLS_INLINE_BODY {
          constexpr std::size_t kPixel = kLast - decltype(k)::kValue;
          constexpr std::size_t kSum = kVector + kPixel - kLast;  // wraps before the first vector
          if constexpr (kNumber == 0 && kSum == 0) {
            values[kPixel] = Isa::LoadLeft(from + kPixel * step);
          }
          if constexpr (kSum < kVectors) {
            Isa::template MultiplyAdd<kNumber>(values[kPixel], vector, sums[kPixel][kSum]);
          }
        });
      });
      right += plan.pitch;
    });
  }
}

// Columns of a row that are packed together, and the block of them that is being computed.
struct Panel {
  std::size_t row;          // number of the row's first pixel in the maps
  std::size_t first;        // column
  std::size_t end;          // column past the last one
  std::int8_t* packed;      // place of column first + plan.panel - 1
  std::size_t start;        // column of the block
  const std::int8_t* left;  // the block's first left pixel
};

template <typename Isa>
std::int8_t* PackedAt(const Plan& plan, const Panel& panel, std::size_t column) {
  return panel.packed + (panel.first + plan.panel - 1 - column) * kColumnBytes<Isa>;
}

// Prefetches share number `share` of what the next block reads or writes at `from`: each tile asks
// for one, as everything at once would stall. The address may be past the end of the buffer;
// prefetching it is harmless.
QXTOOLS_INLINE void Prefetch(const std::int8_t* from, std::size_t offset, std::size_t share,
                             std::size_t bytes) {
  std::uintptr_t at = reinterpret_cast<std::uintptr_t>(from) + offset + share * bytes;
  for (const std::uintptr_t end = at + bytes; at < end; at += kCostVolumeAlignment) {
    __builtin_prefetch(reinterpret_cast<const void*>(at), 0, 3);
  }
}

// Stores the first `count` bytes of `costs`.
template <typename Vector>
QXTOOLS_INLINE void StoreCosts(Vector costs, std::size_t count, std::int8_t* to) {
  if (count == sizeof(costs)) {
    __builtin_memcpy(to, &costs, sizeof(costs));
  } else {
    const Vector copy = costs;  // keeps `costs` itself out of memory
    __builtin_memcpy(to, &copy, count);
  }
}

// The block's tiles of disparities d and on; each prefetches one share, the first number `share`.
template <typename Isa, std::size_t kVectors, std::size_t kSkipped>
QXTOOLS_INLINE void ComputeBand(const CostVolumeJob& job, const Plan& plan, const Panel& panel,
                                std::size_t d, std::size_t share, std::size_t shares) {
  const std::size_t columns = panel.end - panel.start;
  const std::size_t next = panel.row + panel.start + kBlockColumns<Isa>;  // pixel
  const std::size_t inputs = kBlockColumns<Isa> * job.channels / shares;
  const std::size_t costs = kBlockColumns<Isa> * job.disparities / shares;
  const std::int8_t* left = panel.left;
  const std::int8_t* right = PackedAt<Isa>(plan, panel, panel.start) + d * kColumnBytes<Isa> -
                             (Isa::kPixels - 1) * Isa::kVectorBytes;
  std::int8_t* cost = job.cost + (panel.row + panel.start) * job.disparities + d;
  for (std::size_t t = 0; t < Smaller(kVectorColumns<Isa>, columns); ++t) {
    if constexpr (Isa::kPrefetches) {
      Prefetch(job.left, next * job.channels, share + t, inputs);
      Prefetch(job.right, next * job.channels, share + t, inputs);
      Prefetch(job.cost, next * job.disparities, share + t, costs);
    }
    const std::size_t existing = (columns - t - 1) / kVectorColumns<Isa> + 1;
    Sums<Isa, kVectors> sums;
    Multiply<Isa, kVectors, kSkipped>(plan, left, right, sums);
    Isa::template Store<kVectors>(plan, existing, sums, cost,
                                  kVectorColumns<Isa> * job.disparities);
    left += plan.left_step;
    right -= kColumnBytes<Isa>;
    cost += job.disparities;
  }
}

// Bands first .. end - 1 of the block's `bands`. Job and plan are copies, which stores of costs
// cannot change: they stay in registers.
template <typename Isa, std::size_t kVectors, std::size_t kSkipped>
void ComputeBands(const CostVolumeJob& all, const Plan& plan_of_all, const Panel& panel,
                  std::size_t first, std::size_t end, std::size_t bands) {
  const CostVolumeJob job = all;
  const Plan plan = plan_of_all;
  for (std::size_t b = first; b < end; ++b) {
    // A band that would end past the last cost moves back and overlaps the one before.
    const std::size_t d = Smaller(b * plan.band, plan.cover - plan.band);
    ComputeBand<Isa, kVectors, kSkipped>(job, plan, panel, d, b * kVectorColumns<Isa>,
                                         bands * kVectorColumns<Isa>);
  }
}

// At the left edge, where all disparities of a tile's first pixel lie outside the row, all vectors
// but the first of the first pixel, the first two of the second, and so on, hold zeros.
template <typename Isa, std::size_t kVectors = Isa::kMaxVectors>
auto BandsOf(std::size_t vectors, bool at_edge) {
  if constexpr (kVectors > Isa::kMinVectors) {
    if (vectors < kVectors) return BandsOf<Isa, kVectors - 1>(vectors, at_edge);
  }
  return at_edge ? ComputeBands<Isa, kVectors, kVectors - 1> : ComputeBands<Isa, kVectors, 0>;
}

template <typename Isa>
void ComputeBlock(const CostVolumeJob& job, const Plan& plan, const Panel& panel) {
  const std::size_t start = panel.start;
  // Pixels of the block have no disparities from here on.
  const std::size_t reach = Smaller(plan.cover, RoundUp(start + kBlockColumns<Isa>, plan.band));
  const std::size_t bands = RoundUp(reach, plan.band) / plan.band;
  // Those that begin at disparities below the block's first column, also when moved back.
  const std::size_t inner = start > plan.cover - plan.band
                                ? bands
                                : Smaller(bands, RoundUp(start, plan.band) / plan.band);
  if (inner > 0) BandsOf<Isa>(plan.vectors, false)(job, plan, panel, 0, inner, bands);
  if (inner < bands) BandsOf<Isa>(plan.vectors, true)(job, plan, panel, inner, bands, bands);
  if (reach >= job.disparities) return;
  for (std::size_t x = start; x < Smaller(start + kBlockColumns<Isa>, panel.end); ++x) {
    std::int8_t* cost = job.cost + (panel.row + x) * job.disparities;
    __builtin_memset(cost + reach, 0, job.disparities - reach);
  }
}

// Packs `count` columns, whole vectors, from `column` on; `to` is the place of the last of them.
template <typename Isa>
void PackColumns(const Row& row, std::size_t column, std::size_t count, const Plan& plan,
                 std::int8_t* to) {
  for (std::size_t t = 0; t < count; t += kVectorColumns<Isa>, to += Isa::kVectorBytes) {
    Isa::PackVector(row, column + count - 1 - t, plan, to);
  }
}

// Packs what the panel needs left of its first column. Columns left of the image are treated as
// zero, so their costs are zero.
template <typename Isa>
void PackHistory(const Row& row, const Plan& plan, const Panel& panel) {
  std::int8_t* to = panel.packed + plan.panel * kColumnBytes<Isa>;
  const std::size_t inside = Smaller(panel.first, plan.history);
  PackColumns<Isa>(row, panel.first - inside, inside, plan, to);
  to += inside * kColumnBytes<Isa>;
  for (std::size_t g = 0; g <= plan.channels / Isa::kGroup; ++g, to += plan.pitch) {
    __builtin_memset(to, 0, (plan.history - inside) * kColumnBytes<Isa>);
  }
}

// Packs the left pixels of the block. Returns: the first of them.
template <typename Isa>
std::int8_t* PackLeft(const Row& row, const Plan& plan, const Panel& panel) {
  std::int8_t* const packed = panel.packed + RightBytes<Isa>(plan);
  for (std::size_t t = 0; t < kBlockColumns<Isa>; ++t) {
    const std::int8_t* pixel = PixelAt(row, panel.start + t);
    std::int8_t* const to = packed + t * plan.left_step;
    if constexpr (Isa::kPacksLeft) {
      Isa::PackPixel(pixel, plan.channels, to);
    } else {
      __builtin_memcpy(to, pixel, plan.channels);
    }
  }
  return packed;
}

template <typename Isa>
void ComputePanel(const CostVolumeJob& job, Plan plan, Panel panel) {
  const Row left{job.left + panel.row * job.channels, job.width, job.channels};
  const Row right{job.right + panel.row * job.channels, job.width, job.channels};
  const bool whole = panel.end - panel.first >= kBlockColumns<Isa>;
  // A tile reads as many left pixels as it computes: those of a narrow panel are packed, so that
  // all of them exist.
  const bool packs_left = Isa::kPacksLeft || !whole;
  plan.left_step = packs_left ? plan.channels * Isa::kElementBytes : job.channels;
  for (std::size_t x = panel.first; x < panel.end; x += kBlockColumns<Isa>) {
    const std::size_t count =
        Smaller(kBlockColumns<Isa>, RoundUp(panel.end - x, kVectorColumns<Isa>));
    PackColumns<Isa>(right, x, count, plan, PackedAt<Isa>(plan, panel, x + count - 1));
    // A block that would end past the panel moves back as well.
    panel.start = whole ? Smaller(x, panel.end - kBlockColumns<Isa>) : panel.first;
    panel.left =
        packs_left ? PackLeft<Isa>(left, plan, panel) : left.pixels + panel.start * left.channels;
    ComputeBlock<Isa>(job, plan, panel);
  }
}

template <typename Isa>
std::size_t ScratchBytes(const CostVolumeJob& job) {
  const Plan plan = PlanOf<Isa>(job);
  return RightBytes<Isa>(plan) + kBlockColumns<Isa> * plan.channels * Isa::kElementBytes;
}

template <typename Isa>
void ComputeRows(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                 std::uint8_t* scratch) {
  const Plan plan = PlanOf<Isa>(job);
  for (std::size_t y = first_row; y < end_row; ++y) {
    for (std::size_t first = 0; first < job.width; first += plan.panel) {
      const Panel panel{y * job.width,
                        first,
                        Smaller(first + plan.panel, job.width),
                        reinterpret_cast<std::int8_t*>(scratch),
                        first,
                        nullptr};
      // With one panel a row, the zeros left of the image stay from row to row.
      if (y == first_row || plan.panel < job.width) {
        PackHistory<Isa>({job.right + panel.row * job.channels, job.width, job.channels}, plan,
                         panel);
      }
      ComputePanel<Isa>(job, plan, panel);
    }
  }
}

}  // namespace
}  // namespace qx::utils::image
