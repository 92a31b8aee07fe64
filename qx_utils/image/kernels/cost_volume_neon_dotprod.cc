// Cost volume with the dot products of AArch64: register tiles of 16 left pixels x 16 disparities,
// four pixels of every fourth column at a time.
//
// The right row is packed once: for every four channels, all columns from right to left, so that
// four neighbouring columns are four rising disparities in a vector of sums. The vector of a left
// pixel at x and disparity d starts at column x - d, so pixels at x, x + 4, x + 8 and x + 12 with
// d, d + 4, d + 8 and d + 12 make 16 vectors of sums out of 7 loads, and no lane is wasted.
#include <arm_neon.h>

#include "qx_utils/image/kernels/cost_volume.h"

#define QXTOOLS_INLINE __attribute__((always_inline)) inline

namespace qx {
namespace utils {
namespace image {
namespace {

constexpr std::size_t kTile = 16;  // left pixels, and disparities
constexpr std::size_t kStep = 4;   // lanes, and distance of a tile's pixels
constexpr std::size_t kPackedBudget = std::size_t{160} * 1024;  // bytes of packed right columns

std::size_t RoundUp(std::size_t value, std::size_t unit) {
  return (value + unit - 1) / unit * unit;
}
std::size_t Smaller(std::size_t a, std::size_t b) { return a < b ? a : b; }

// How a job is cut: columns are worked on in panels so that scratch stays bounded.
struct Plan {
  std::size_t channels;  // in whole blocks
  std::size_t costs;     // disparities that some pixel has, in whole tiles
  std::size_t panel;     // columns, in whole tiles
  std::size_t columns;   // packed right columns
};

Plan PlanOf(const CostVolumeJob& job) {
  Plan plan{};
  plan.channels = job.channels / kCostVolumeBlock * kCostVolumeBlock;
  plan.costs = RoundUp(Smaller(job.disparities, job.width), kTile);
  const std::size_t columns = kPackedBudget / plan.channels;
  const std::size_t fitting = columns > plan.costs ? (columns - plan.costs) / kTile * kTile : 0;
  plan.panel = Smaller(RoundUp(job.width, kTile), fitting == 0 ? 4 * kTile : fitting);
  plan.columns = plan.panel + plan.costs;
  return plan;
}

// Scratch of a thread.
struct Packed {
  std::int8_t* right;  // [four channels][column], the panel's last column first
  std::int8_t* edge;   // left pixels of a tile that reaches out of the row
};

struct Row {
  const std::int8_t* pixels;
  std::size_t width;
  std::size_t channels;  // distance of pixels
};

// Sixteen channels of a column, or zeros outside the row.
QXTOOLS_INLINE int32x4_t Channels(const Row& row, std::ptrdiff_t column, std::size_t channel) {
  if (column < 0 || column >= static_cast<std::ptrdiff_t>(row.width)) return vdupq_n_s32(0);
  return vreinterpretq_s32_s8(
      vld1q_s8(row.pixels + static_cast<std::size_t>(column) * row.channels + channel));
}

QXTOOLS_INLINE int64x2_t Wide(int32x4_t value) { return vreinterpretq_s64_s32(value); }

void PackRight(const Row& row, std::size_t first, const Plan& plan, std::int8_t* to) {
  const auto last = static_cast<std::ptrdiff_t>(first + plan.panel - 1);
  const std::size_t pitch = plan.columns * 4;
  for (std::size_t at = 0; at < plan.columns; at += 4) {
    const std::ptrdiff_t column = last - static_cast<std::ptrdiff_t>(at);
    std::int8_t* out = to + at * 4;
    for (std::size_t c = 0; c < plan.channels; c += 16, out += 4 * pitch) {
      const int32x4_t p0 = Channels(row, column, c);
      const int32x4_t p1 = Channels(row, column - 1, c);
      const int32x4_t p2 = Channels(row, column - 2, c);
      const int32x4_t p3 = Channels(row, column - 3, c);
      const int64x2_t even01 = Wide(vtrn1q_s32(p0, p1));
      const int64x2_t odd01 = Wide(vtrn2q_s32(p0, p1));
      const int64x2_t even23 = Wide(vtrn1q_s32(p2, p3));
      const int64x2_t odd23 = Wide(vtrn2q_s32(p2, p3));
      vst1q_s8(out, vreinterpretq_s8_s64(vtrn1q_s64(even01, even23)));
      vst1q_s8(out + pitch, vreinterpretq_s8_s64(vtrn1q_s64(odd01, odd23)));
      vst1q_s8(out + 2 * pitch, vreinterpretq_s8_s64(vtrn2q_s64(even01, even23)));
      vst1q_s8(out + 3 * pitch, vreinterpretq_s8_s64(vtrn2q_s64(odd01, odd23)));
    }
  }
}

using Sums = int32x4_t[4][4];  // [pixel at x + 4q][m]: disparities 4m .. 4m + 3

// The loops over registers are recursions with constant indices: arrays that a loop variable
// indexes would be kept in memory. Adds four channels' products of window kWindow.
template <int kLane, std::size_t kWindow, std::size_t kPixel = 0>
QXTOOLS_INLINE void AddProducts(const int8x16_t (&left)[4], int8x16_t window, Sums& sums) {
  if constexpr (kPixel < 4) {
    if constexpr (kWindow + kPixel >= 3 && kWindow + kPixel < 7) {
      int32x4_t& sum = sums[kPixel][kWindow + kPixel - 3];
      sum = vdotq_laneq_s32(sum, window, left[kPixel], kLane);
    }
    AddProducts<kLane, kWindow, kPixel + 1>(left, window, sums);
  }
}

template <int kLane, std::size_t kWindow = 0>
QXTOOLS_INLINE void AddWindows(const int8x16_t (&left)[4], const std::int8_t* right, Sums& sums) {
  if constexpr (kWindow < 7) {
    AddProducts<kLane, kWindow>(left, vld1q_s8(right + kWindow * 16), sums);
    AddWindows<kLane, kWindow + 1>(left, right, sums);
  }
}

// The integers whose low 8 bits are the costs. `kWide`: some cost may reach 2^22.
template <bool kWide>
QXTOOLS_INLINE int32x4_t Costs(int32x4_t sums, float scale) {
  const float32x4_t value = vmulq_n_f32(vcvtq_f32_s32(sums), scale);
  // The larger of the two is the leaky one below zero and the plain one above.
  const float32x4_t leaky = vmaxq_f32(value, vmulq_n_f32(value, kCostVolumeLeak));
  if constexpr (kWide) {
    // The distance to the integer below is exact, or on the right side of a half (0 > q > -0.5).
    const float32x4_t below = vrndmq_f32(leaky);
    const uint32x4_t up = vcgeq_f32(vsubq_f32(leaky, below), vdupq_n_f32(0.5F));
    return vsubq_s32(vcvtq_s32_f32(below), vreinterpretq_s32_u32(up));
  }
  // Rounding takes ties away from zero. One step towards zero makes a negative tie none and,
  // below 2^22, carries nothing else across a tie; minus zero becomes no number, which gives 0.
  const int32x4_t bits = vreinterpretq_s32_f32(leaky);
  return vcvtaq_s32_f32(vreinterpretq_f32_s32(vsraq_n_s32(bits, bits, 31)));
}

QXTOOLS_INLINE int8x16_t LowHalves(int32x4_t a, int32x4_t b) {
  return vreinterpretq_s8_s16(vuzp1q_s16(vreinterpretq_s16_s32(a), vreinterpretq_s16_s32(b)));
}

// Where the costs of a tile's pixels go.
struct Target {
  std::int8_t* cost;   // of the first pixel and disparity
  std::size_t pitch;   // bytes from pixel to pixel
  std::size_t pixels;  // that exist, at most kTile
  std::size_t costs;   // that exist, at most kTile
};

template <bool kWide>
QXTOOLS_INLINE void StorePixel(const Target& to, std::size_t pixel, const int32x4_t (&sums)[4],
                               float scale) {
  const int8x16_t costs =
      vuzp1q_s8(LowHalves(Costs<kWide>(sums[0], scale), Costs<kWide>(sums[1], scale)),
                LowHalves(Costs<kWide>(sums[2], scale), Costs<kWide>(sums[3], scale)));
  if (pixel >= to.pixels) return;
  std::int8_t* cost = to.cost + pixel * to.pitch;
  if (to.costs == kTile) {
    vst1q_s8(cost, costs);
  } else {
    std::int8_t bytes[kTile];
    vst1q_s8(bytes, costs);
    __builtin_memcpy(cost, bytes, to.costs);
  }
}

// Four pixels, the first one `pixel` of the tile; `right` is the window of the last pixel and m =
// 0.
template <bool kWide>
QXTOOLS_INLINE void Quarter(const Row& left, std::size_t pixel, const std::int8_t* right,
                            const Plan& plan, float scale, const Target& to) {
  Sums sums;
  for (auto& pixel_sums : sums) {
    for (auto& sum : pixel_sums) sum = vdupq_n_s32(0);
  }
  const std::int8_t* at = left.pixels + pixel * left.channels;
  const std::size_t step = kStep * left.channels;
  const std::size_t pitch = plan.columns * 4;
  for (std::size_t c = 0; c < plan.channels; c += 16, at += 16, right += 4 * pitch) {
    const int8x16_t pixels[4] = {vld1q_s8(at), vld1q_s8(at + step), vld1q_s8(at + 2 * step),
                                 vld1q_s8(at + 3 * step)};
    AddWindows<0>(pixels, right, sums);
    AddWindows<1>(pixels, right + pitch, sums);
    AddWindows<2>(pixels, right + 2 * pitch, sums);
    AddWindows<3>(pixels, right + 3 * pitch, sums);
  }
  StorePixel<kWide>(to, pixel, sums[0], scale);
  StorePixel<kWide>(to, pixel + kStep, sums[1], scale);
  StorePixel<kWide>(to, pixel + 2 * kStep, sums[2], scale);
  StorePixel<kWide>(to, pixel + 3 * kStep, sums[3], scale);
}

// The pixels of the tile at column x: those of the row, or a copy followed by zeros at its end.
Row TilePixels(const Row& row, std::size_t x, const Plan& plan, std::int8_t* edge) {
  const std::int8_t* from = row.pixels + x * row.channels;
  if (x + kTile <= row.width) return {from, kTile, row.channels};
  for (std::size_t t = 0; t < kTile; ++t) {
    if (x + t < row.width) {
      __builtin_memcpy(edge + t * plan.channels, from + t * row.channels, plan.channels);
    } else {
      __builtin_memset(edge + t * plan.channels, 0, plan.channels);
    }
  }
  return {edge, kTile, plan.channels};
}

// The tiles of 16 left pixels at column x; `right` is the packed column x + 15, `cost` is pixel x.
template <bool kWide>
void Strip(const CostVolumeJob& job, const Plan& plan, const Row& left, std::size_t x,
           const std::int8_t* right, std::int8_t* cost) {
  Target to{cost, job.disparities, Smaller(job.width - x, kTile), kTile};
  std::size_t d = 0;
  for (; d < plan.costs && d < job.disparities && d < x + kTile; d += kTile) {
    to.cost = cost + d;
    to.costs = Smaller(job.disparities - d, kTile);
    for (std::size_t pixel = 0; pixel < kStep; ++pixel) {
      // The last of the four pixels is at x + pixel + 12.
      Quarter<kWide>(left, pixel, right + (d + 3 - pixel) * 4, plan, job.scale, to);
    }
  }
  for (std::size_t t = 0; t < to.pixels && d < job.disparities; ++t) {
    __builtin_memset(cost + t * job.disparities + d, 0, job.disparities - d);
  }
}

// Whether some cost may reach 2^22; true for a scale that is no number.
bool NeedsWide(const Plan& plan, float scale) {
  const float magnitude = scale < 0 ? -scale : scale;
  return !(static_cast<float>(plan.channels) * 16384.0F * magnitude < 4e6F);
}

}  // namespace

std::size_t CostVolumeScratchNeonDotprod(const CostVolumeJob& job) {
  const Plan plan = PlanOf(job);
  return (plan.columns + kTile) * plan.channels;
}

void CostVolumeRowsNeonDotprod(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                               std::uint8_t* scratch) {
  const Plan plan = PlanOf(job);
  const Packed packed{reinterpret_cast<std::int8_t*>(scratch),
                      reinterpret_cast<std::int8_t*>(scratch) + plan.columns * plan.channels};
  const auto strip = NeedsWide(plan, job.scale) ? Strip<true> : Strip<false>;
  for (std::size_t y = first_row; y < end_row; ++y) {
    const std::size_t row = y * job.width;
    const Row left{job.left + row * job.channels, job.width, job.channels};
    const Row right{job.right + row * job.channels, job.width, job.channels};
    for (std::size_t first = 0; first < job.width; first += plan.panel) {
      PackRight(right, first, plan, packed.right);
      for (std::size_t x = 0; x < plan.panel && first + x < job.width; x += kTile) {
        const Row pixels = TilePixels(left, first + x, plan, packed.edge);
        strip(job, plan, pixels, first + x, packed.right + (plan.panel - kTile - x) * 4,
              job.cost + (row + first + x) * job.disparities);
      }
    }
  }
}

}  // namespace image
}  // namespace utils
}  // namespace qx
