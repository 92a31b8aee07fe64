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
//   kPackedBudget             bytes of the packed panel, see there
//   kPacksLeft                whether left pixels are packed in any case, by PackPixel()
//   kPrefetches               whether software prefetching pays
//   kNarrowLimit              Store() is faster while the magnitude of all costs is below this
//   PackVector(pixels, channels, pitch, to)
//       packs a vector's columns, the rightmost first: its K groups, `pitch` bytes apart, and as
//       one more K group what Start() reads
//   Start(from)
//       what a sum starts with
//   Load(from), LoadLeft(from)
//       a vector of the panel; K groups of a left pixel, repeated for all columns of a vector
//   MultiplyAdd<k>(left, vector, sum)
//       adds the products of the k-th K group of `left`
//   Store<kVectors>(plan, existing, sums, cost, step)
//       scales, rounds and stores the tile's `existing` first left pixels, costs `step` bytes apart
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include "qx_utils/image/kernels/cost_volume.h"
#include "qx_utils/image/kernels/kernel-inl.h"

namespace qx::utils::image {
namespace {

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
  std::size_t right;      // bytes of the packed right row; the last K group is what sums start with
  std::size_t left_step;  // bytes from left pixel to left pixel, chosen for each panel
  float scale;
  bool wide;  // whether some cost can reach Isa::kNarrowLimit
};

template <typename Isa>
constexpr std::size_t kColumnBytes = Isa::kGroup* Isa::kElementBytes;
template <typename Isa>
constexpr std::size_t kVectorColumns = Isa::kVectorBytes / kColumnBytes<Isa>;
template <typename Isa>
constexpr std::size_t kBlockColumns = Isa::kPixels* kVectorColumns<Isa>;

// Vectors of a tile: as few tiles as possible for each pixel, all equally wide. No tile is wider
// than a pixel's costs, unless Isa does not have such narrow ones.
template <typename Isa>
std::size_t VectorsOf(const CostVolumeJob& job) {
  constexpr std::size_t kColumns = kVectorColumns<Isa>;
  const std::size_t all = DivideUp(Smaller(job.disparities, job.width), kColumns);
  const std::size_t vectors = DivideUp(all, DivideUp(all, Isa::kMaxVectors));
  return Larger(Smaller(vectors, job.disparities / kColumns), Isa::kMinVectors);
}

template <typename Isa>
Plan PlanOf(const CostVolumeJob& job) {
  Plan plan{};
  plan.channels = job.channels / kCostVolumeBlock * kCostVolumeBlock;
  const std::size_t costs = Smaller(job.disparities, job.width);
  plan.vectors = VectorsOf<Isa>(job);
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
  plan.pitch = (DivideUp(bytes, kCostVolumeAlignment) | 1) * kCostVolumeAlignment;
  plan.right = (plan.channels / Isa::kGroup + 1) * plan.pitch;
  plan.scale = job.scale;
  // No sum is larger than -128 * -128 in all channels. The comparison is false for NaN.
  const float magnitude = job.scale < 0 ? -job.scale : job.scale;
  plan.wide = !(static_cast<float>(plan.channels) * 16384.0F * magnitude < Isa::kNarrowLimit);
  return plan;
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
  const std::int8_t* const starts = right + plan.right - plan.pitch;
  const std::size_t step = kVectorColumns<Isa> * plan.left_step;
  Unroll<Isa::kPixels>([&](auto p) QXTOOLS_INLINE_BODY {
    Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
      sums[p][v] = Isa::Start(starts + (kLast - p + v) * Isa::kVectorBytes);
    });
  });
  for (std::size_t c = 0; c < plan.channels; c += Isa::kStep) {
    const std::int8_t* const from = left + c * Isa::kElementBytes;
    typename Isa::Vector values[Isa::kPixels];
    Unroll<Isa::kStep / Isa::kGroup>([&](auto g) QXTOOLS_INLINE_BODY {
      constexpr std::size_t kNumber = g;
      Unroll<kVectors + kLast - kSkipped>([&](auto v) QXTOOLS_INLINE_BODY {
        constexpr std::size_t kVector = v;
        const typename Isa::Vector vector = Isa::Load(right + kVector * Isa::kVectorBytes);
        Unroll<Isa::kPixels>([&](auto k) QXTOOLS_INLINE_BODY {
          constexpr std::size_t kPixel = kLast - k;
          constexpr std::size_t kSum = kVector - k;  // wraps before the first vector
          if (kNumber == 0 && kSum == 0) values[kPixel] = Isa::LoadLeft(from + kPixel * step);
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
  std::size_t row;  // number of the row's first pixel in the maps
  Row left, right;
  std::size_t first;         // column
  std::size_t end;           // column past the last one
  std::int8_t* packed;       // place of column first + plan.panel - 1
  std::size_t start;         // column of the block
  const std::int8_t* block;  // its first left pixel
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

// Band number `band` of the block's `bands`; each tile prefetches one share.
template <typename Isa, std::size_t kVectors, std::size_t kSkipped>
QXTOOLS_INLINE void ComputeBand(const CostVolumeJob& job, const Plan& plan, const Panel& panel,
                                std::size_t band, std::size_t bands) {
  // A band that would end past the last cost moves back and overlaps the one before.
  const std::size_t d = Smaller(band * plan.band, plan.cover - plan.band);
  const std::size_t columns = panel.end - panel.start;
  const std::size_t next = panel.row + panel.start + kBlockColumns<Isa>;  // pixel
  const std::size_t inputs = Isa::kPixels * job.channels / bands;
  const std::size_t costs = Isa::kPixels * job.disparities / bands;
  const std::size_t step = kVectorColumns<Isa> * job.disparities;
  const std::int8_t* left = panel.block;
  const std::int8_t* right = PackedAt<Isa>(plan, panel, panel.start) + d * kColumnBytes<Isa> -
                             (Isa::kPixels - 1) * Isa::kVectorBytes;
  std::int8_t* cost = job.cost + (panel.row + panel.start) * job.disparities + d;
  const std::size_t tiles = Smaller(kVectorColumns<Isa>, columns);
  for (std::size_t t = 0; t < tiles; ++t) {
    if constexpr (Isa::kPrefetches) {
      const std::size_t share = band * kVectorColumns<Isa> + t;
      Prefetch(job.left, next * job.channels, share, inputs);
      Prefetch(job.right, next * job.channels, share, inputs);
      Prefetch(job.cost, next * job.disparities, share, costs);
    }
    const std::size_t existing = (columns - t - 1) / kVectorColumns<Isa> + 1;
    Sums<Isa, kVectors> sums;
    Multiply<Isa, kVectors, kSkipped>(plan, left, right, sums);
    Isa::template Store<kVectors>(plan, existing, sums, cost, step);
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
    ComputeBand<Isa, kVectors, kSkipped>(job, plan, panel, b, bands);
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
  const std::size_t bands = DivideUp(reach, plan.band);
  // Those that begin at disparities below the block's first column, also when moved back.
  const bool all_inner = start > plan.cover - plan.band;
  const std::size_t inner = all_inner ? bands : Smaller(bands, DivideUp(start, plan.band));
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
    const std::int8_t* pixels[kVectorColumns<Isa>];
    Unroll<kVectorColumns<Isa>>(
        [&](auto k) QXTOOLS_INLINE_BODY { pixels[k] = PixelAt(row, column + count - 1 - t - k); });
    Isa::PackVector(pixels, plan.channels, plan.pitch, to);
  }
}

// Packs what the panel needs left of its first column. Columns left of the image are treated as
// zero, so their costs are zero.
template <typename Isa>
void PackHistory(const Plan& plan, const Panel& panel) {
  std::int8_t* to = panel.packed + plan.panel * kColumnBytes<Isa>;
  const std::size_t inside = Smaller(panel.first, plan.history);
  PackColumns<Isa>(panel.right, panel.first - inside, inside, plan, to);
  to += inside * kColumnBytes<Isa>;
  for (std::size_t g = 0; g <= plan.channels / Isa::kGroup; ++g, to += plan.pitch) {
    __builtin_memset(to, 0, (plan.history - inside) * kColumnBytes<Isa>);
  }
}

// Packs the left pixels of the block. Returns: the first of them.
template <typename Isa>
std::int8_t* PackLeft(const Plan& plan, const Panel& panel) {
  std::int8_t* const packed = panel.packed + plan.right;
  for (std::size_t t = 0; t < kBlockColumns<Isa>; ++t) {
    const std::int8_t* pixel = PixelAt(panel.left, panel.start + t);
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
  const bool whole = panel.end - panel.first >= kBlockColumns<Isa>;
  // A tile reads as many left pixels as it computes: those of a narrow panel are packed, so that
  // all of them exist.
  const bool packs_left = Isa::kPacksLeft || !whole;
  plan.left_step = packs_left ? plan.channels * Isa::kElementBytes : job.channels;
  for (std::size_t x = panel.first; x < panel.end; x += kBlockColumns<Isa>) {
    const std::size_t count =
        Smaller(kBlockColumns<Isa>, RoundUp(panel.end - x, kVectorColumns<Isa>));
    PackColumns<Isa>(panel.right, x, count, plan, PackedAt<Isa>(plan, panel, x + count - 1));
    // A block that would end past the panel moves back as well.
    panel.start = whole ? Smaller(x, panel.end - kBlockColumns<Isa>) : panel.first;
    panel.block = packs_left ? PackLeft<Isa>(plan, panel) : PixelAt(panel.left, panel.start);
    ComputeBlock<Isa>(job, plan, panel);
  }
}

template <typename Isa>
std::size_t ScratchBytes(const CostVolumeJob& job) {
  const Plan plan = PlanOf<Isa>(job);
  return plan.right + kBlockColumns<Isa> * plan.channels * Isa::kElementBytes;
}

template <typename Isa>
void ComputeRows(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                 std::uint8_t* scratch) {
  const Plan plan = PlanOf<Isa>(job);
  for (std::size_t y = first_row; y < end_row; ++y) {
    for (std::size_t first = 0; first < job.width; first += plan.panel) {
      Panel panel{};
      panel.row = y * job.width;
      panel.left = {job.left + panel.row * job.channels, job.width, job.channels};
      panel.right = {job.right + panel.row * job.channels, job.width, job.channels};
      panel.first = first;
      panel.end = Smaller(first + plan.panel, job.width);
      panel.packed = reinterpret_cast<std::int8_t*>(scratch);
      // With one panel a row, the zeros left of the image stay from row to row.
      if (y == first_row || plan.panel < job.width) PackHistory<Isa>(plan, panel);
      ComputePanel<Isa>(job, plan, panel);
    }
  }
}

template <typename Isa>
constexpr CostVolumeKernel kKernel = {ComputeRows<Isa>, ScratchBytes<Isa>};

// Two sets of primitives; kTakesSecond() chooses for each job.
template <typename First, typename Second, bool (*kTakesSecond)(const CostVolumeJob& job)>
constexpr CostVolumeKernel kEitherKernel = {
    [](const CostVolumeJob& job, std::size_t first, std::size_t end, std::uint8_t* scratch) {
      (kTakesSecond(job) ? ComputeRows<Second> : ComputeRows<First>)(job, first, end, scratch);
    },
    [](const CostVolumeJob& job) {
      return (kTakesSecond(job) ? ScratchBytes<Second> : ScratchBytes<First>)(job);
    }};

}  // namespace
}  // namespace qx::utils::image
