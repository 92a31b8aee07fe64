// Cost volume with the baseline of AArch64: register tiles of 4 left pixels x 4 disparities.
//
// A sum is kept as four partial sums over the channels; the tile's 16 sums share 7 right pixels. Of
// every 16 channels the products of the first eight are added to those of the last eight in 16
// bits, then pairs of these to the sum in 32 bits. To fit 16 bits when all values are -128, the
// last eight left values are complemented and their products subtracted: l * r = -(~l) * r - r, and
// the sums of those r are taken off per right pixel. Both maps are packed so that 16 channels of
// the tile's pixels follow each other: three instructions load them.
//
// This file plans and packs; the tiles themselves are in cost_volume_neon.S.
#include <arm_neon.h>

#include "qx_utils/image/kernels/cost_volume.h"
#include "qx_utils/image/kernels/kernel-inl.h"

// Computes `tiles` tiles of the same left pixels, from the first disparity on.
//   left    packed left pixels
//   right   the leftmost of the first tile's packed right pixels
//   bias    that of the first left pixel and disparity
//   cost    the first cost, those of the next left pixel `pitch` bytes on
//   steps   16 channels each, all but the first
//   rest    bytes from the fifth packed right pixel to the next 16 channels
//   scale   as in the job; doubled for QxtoolsNeonTilesNarrow, which needs costs below kNarrowLimit
extern "C" {
using NeonTiles = void(const std::int8_t* left, const std::int8_t* right, const std::int32_t* bias,
                       std::int8_t* cost, std::size_t tiles, std::size_t pitch, std::size_t steps,
                       std::size_t rest, float scale, float leak);
NeonTiles QxtoolsNeonTilesNarrow, QxtoolsNeonTilesWide;
}

namespace qx::utils::image {
namespace {

constexpr std::size_t kTile = 4;  // left pixels, and disparities
// Bytes of packed right pixels: half of a core's share of the board's second cache, 1 MiB for four.
constexpr std::size_t kPackedBudget = std::size_t{64} * 1024;
// Twice a cost has to fit 32 bits, with plenty of room; costs of more than 8 bits wrap anyway.
constexpr float kNarrowLimit = 4e6F;

// How a job is divided: columns are computed in panels, so that scratch stays bounded.
struct Plan {
  std::size_t channels;  // in whole blocks
  std::size_t costs;     // disparities that some pixel has
  std::size_t panel;     // columns, in whole tiles
  std::size_t columns;   // right columns that a panel needs
  NeonTiles* tiles;
  float scale;  // that `tiles` takes
};

Plan PlanOf(const CostVolumeJob& job) {
  Plan plan{};
  plan.channels = job.channels / kCostVolumeBlock * kCostVolumeBlock;
  plan.costs = Smaller(job.disparities, job.width);
  const std::size_t lead = RoundUp(plan.costs, kTile);
  const std::size_t fitting = kPackedBudget / plan.channels / kTile * kTile;
  // At least half of what is packed is used for the first time.
  plan.panel = Smaller(RoundUp(job.width, kTile), fitting > 2 * lead ? fitting - lead : lead);
  plan.columns = lead + plan.panel;
  // No sum is larger than -128 * -128 in all channels. The comparison is false for NaN.
  const float magnitude = job.scale < 0 ? -job.scale : job.scale;
  const bool narrow = static_cast<float>(plan.channels) * 16384.0F * magnitude < kNarrowLimit;
  plan.tiles = narrow ? QxtoolsNeonTilesNarrow : QxtoolsNeonTilesWide;
  plan.scale = narrow ? 2 * job.scale : job.scale;
  return plan;
}

// Scratch of a thread.
struct Packed {
  std::int32_t* bias;  // what a right column's sums are too high by, negated; last column first
  std::int8_t* right;  // [16 channels][column]
  std::int8_t* left;   // a tile's pixels, [16 channels][pixel], the last eight complemented
};

Packed SplitScratch(const Plan& plan, std::uint8_t* scratch) {
  Packed packed{};
  packed.bias = reinterpret_cast<std::int32_t*>(scratch);
  packed.right = reinterpret_cast<std::int8_t*>(scratch) + plan.columns * sizeof(std::int32_t);
  packed.left = packed.right + plan.columns * plan.channels;
  return packed;
}

struct Row {
  const std::int8_t* pixels;
  std::size_t width;
  std::size_t channels;  // distance of pixels
};

// The left pixels at column x. Past the end of the row the last pixel repeats; results computed
// from it are discarded.
void PackLeft(const Row& row, std::size_t x, const Plan& plan, std::int8_t* to) {
  const int8x16_t flip = vcombine_s8(vdup_n_s8(0), vdup_n_s8(-1));
  for (std::size_t t = 0; t < kTile; ++t, to += 16) {
    const std::int8_t* pixel = row.pixels + Smaller(x + t, row.width - 1) * row.channels;
    for (std::size_t c = 0; c < plan.channels; c += kCostVolumeBlock) {
      vst1q_s8(to + c * kTile, veorq_s8(vld1q_s8(pixel + c), flip));
      vst1q_s8(to + (c + 16) * kTile, veorq_s8(vld1q_s8(pixel + c + 16), flip));
    }
  }
}

// One right column, and what its sums are too high by.
std::int32_t PackColumn(const std::int8_t* pixel, const Plan& plan, std::int8_t* to) {
  int32x4_t sums = vdupq_n_s32(0);
  for (std::size_t c = 0; c < plan.channels; c += kCostVolumeBlock) {
    const int8x16_t first = vld1q_s8(pixel + c);
    const int8x16_t second = vld1q_s8(pixel + c + 16);
    sums = vpadalq_s16(sums, vaddl_high_s8(first, second));
    vst1q_s8(to + c * plan.columns, first);
    vst1q_s8(to + (c + 16) * plan.columns, second);
  }
  return vaddvq_s32(sums);
}

// The right columns of a panel that begins at `first`; those left of the row are zeros.
void PackRight(const Row& row, std::size_t first, const Plan& plan, const Packed& packed) {
  const std::size_t lead = plan.columns - plan.panel;
  std::int32_t* bias = packed.bias + plan.columns;
  std::int8_t* to = packed.right;
  for (std::size_t at = 0; at < plan.columns; ++at, to += 16) {
    if (first + at < lead) {
      for (std::size_t c = 0; c < plan.channels; c += 16) {
        vst1q_s8(to + c * plan.columns, vdupq_n_s8(0));
      }
      *--bias = 0;
      continue;
    }
    const std::size_t column = Smaller(first + at - lead, row.width - 1);
    *--bias = -PackColumn(row.pixels + column * row.channels, plan, to);
  }
}

// The costs of four left pixels at column x; `right` and `bias` are those of the first one.
void ComputeStrip(const CostVolumeJob& job, const Plan& plan, std::size_t x,
                  const std::int8_t* left, const std::int8_t* right, const std::int32_t* bias,
                  std::int8_t* cost) {
  const std::size_t pitch = job.disparities;
  const std::size_t steps = plan.channels / 16 - 1;
  const std::size_t rest = plan.columns * 16 - 64;
  const std::size_t pixels = Smaller(job.width - x, kTile);
  const std::size_t end = Smaller(plan.costs, x + pixels);
  const std::size_t whole =
      pixels == kTile ? Smaller(RoundUp(end, kTile), pitch / kTile * kTile) : 0;
  right -= (kTile - 1) * 16;
  if (whole > 0) {
    plan.tiles(left, right, bias, cost, whole / kTile, pitch, steps, rest, plan.scale,
               kCostVolumeLeak);
  }
  std::size_t d = whole;
  for (; d < end; d += kTile) {  // tiles that reach out of the volume
    std::int8_t costs[kTile * kTile];
    plan.tiles(left, right - d * 16, bias + d, costs, 1, kTile, steps, rest, plan.scale,
               kCostVolumeLeak);
    for (std::size_t t = 0; t < pixels; ++t) {
      __builtin_memcpy(cost + t * pitch + d, costs + t * kTile, Smaller(pitch - d, kTile));
    }
  }
  for (std::size_t t = 0; t < pixels && d < pitch; ++t) {
    __builtin_memset(cost + t * pitch + d, 0, pitch - d);
  }
}

std::size_t ScratchBytes(const CostVolumeJob& job) {
  const Plan plan = PlanOf(job);
  return plan.columns * sizeof(std::int32_t) + (plan.columns + kTile) * plan.channels;
}

void ComputeRows(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                 std::uint8_t* scratch) {
  const Plan plan = PlanOf(job);
  const Packed packed = SplitScratch(plan, scratch);
  for (std::size_t y = first_row; y < end_row; ++y) {
    const std::size_t row = y * job.width;
    const Row left{job.left + row * job.channels, job.width, job.channels};
    const Row right{job.right + row * job.channels, job.width, job.channels};
    for (std::size_t first = 0; first < job.width; first += plan.panel) {
      PackRight(right, first, plan, packed);
      for (std::size_t x = 0; x < plan.panel && first + x < job.width; x += kTile) {
        PackLeft(left, first + x, plan, packed.left);
        ComputeStrip(
            job, plan, first + x, packed.left, packed.right + (plan.columns - plan.panel + x) * 16,
            packed.bias + (plan.panel - 1 - x), job.cost + (row + first + x) * job.disparities);
      }
    }
  }
}

}  // namespace

const CostVolumeKernel kCostVolumeNeon = {ComputeRows, ScratchBytes};

}  // namespace qx::utils::image
