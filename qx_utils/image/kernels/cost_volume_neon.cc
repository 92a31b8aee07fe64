// Cost volume with the baseline of AArch64: register tiles of 4 left pixels x 4 disparities.
//
// A sum is kept as four partial sums over the channels; the tile's 16 sums share 7 right pixels. Of
// every 16 channels the products of the first eight are added to those of the last eight in 16
// bits, then pairs of these to the sum in 32 bits. To fit 16 bits when all values are -128, the
// last eight left values are complemented and their products subtracted: l * r = -(~l) * r - r, and
// the sums of those r are taken off per right pixel. Both maps are packed so that 16 channels of
// the tile's pixels follow each other: three instructions load them.
#include <arm_neon.h>

#include "qx_utils/image/kernels/cost_volume.h"

#define QXTOOLS_INLINE __attribute__((always_inline)) inline

namespace qx::utils::image {
namespace {

constexpr std::size_t kTile = 4;                               // left pixels, and disparities
constexpr std::size_t kPackedBudget = std::size_t{64} * 1024;  // bytes of packed right pixels

std::size_t RoundUp(std::size_t value, std::size_t unit) {
  return (value + unit - 1) / unit * unit;
}
std::size_t Smaller(std::size_t a, std::size_t b) { return a < b ? a : b; }

// How a job is cut: columns are worked on in panels so that scratch stays bounded.
struct Plan {
  std::size_t channels;  // in whole blocks
  std::size_t costs;     // disparities that some pixel has
  std::size_t panel;     // columns, in whole tiles
  std::size_t columns;   // right columns that a panel needs
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

// The left pixels at column x. Behind the row the last one is repeated: nothing made of it is kept.
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

// The tile's sums: one vector per left pixel, a disparity per lane.
struct Sums {
  int32x4_t pixel[kTile];
};

// Products of one disparity d: the left pixels are in v4 - v7, the right ones in v(11 - d) and on,
// the sums in v(16 + d), v(20 + d), ... The four of a kind go side by side, as an in-order
// processor wants them.
#define QXTOOLS_DISPARITY(add, r0, r1, r2, r3, s0, s1, s2, s3)                                \
  "smull %0.8h, v4.8b, v" #r0 ".8b\n\tsmull %1.8h, v5.8b, v" #r1                              \
  ".8b\n\t"                                                                                   \
  "smull %2.8h, v6.8b, v" #r2 ".8b\n\tsmull %3.8h, v7.8b, v" #r3                              \
  ".8b\n\t"                                                                                   \
  "smlsl2 %0.8h, v4.16b, v" #r0 ".16b\n\tsmlsl2 %1.8h, v5.16b, v" #r1                         \
  ".16b\n\t"                                                                                  \
  "smlsl2 %2.8h, v6.16b, v" #r2 ".16b\n\tsmlsl2 %3.8h, v7.16b, v" #r3 ".16b\n\t" add " v" #s0 \
  ".4s, %0.8h\n\t" add " v" #s1 ".4s, %1.8h\n\t" add " v" #s2 ".4s, %2.8h\n\t" add " v" #s3   \
  ".4s, %3.8h\n\t"
#define QXTOOLS_CHANNELS(add)                                                                     \
  "ld1 {v4.16b-v7.16b}, [%[left]], #64\n\t"                                                       \
  "ld1 {v8.16b-v11.16b}, [%[right]], #64\n\t"                                                     \
  "ld1 {v12.16b-v14.16b}, [%[right]], %[rest]\n\t" QXTOOLS_DISPARITY(                             \
      add, 11, 12, 13, 14, 16, 20, 24, 28) QXTOOLS_DISPARITY(add, 10, 11, 12, 13, 17, 21, 25, 29) \
      QXTOOLS_DISPARITY(add, 9, 10, 11, 12, 18, 22, 26, 30)                                       \
          QXTOOLS_DISPARITY(add, 8, 9, 10, 11, 19, 23, 27, 31)
#define QXTOOLS_REDUCE(out, a, b, c, d)                                          \
  "addp v" #a ".4s, v" #a ".4s, v" #b ".4s\n\taddp v" #c ".4s, v" #c ".4s, v" #d \
  ".4s\n\t"                                                                      \
  "addp " out ".4s, v" #a ".4s, v" #c ".4s\n\t"

// `right` is the leftmost of the tile's right pixels, `steps` counts 16 channels each but the
// first, `rest` leads from the fifth right pixel to the next channels. All of it is one block of
// assembly: of intrinsics compilers make spills, which cost more than the products.
QXTOOLS_INLINE Sums Multiply(const std::int8_t* left, const std::int8_t* right, std::size_t steps,
                             std::size_t rest) {
  Sums sums{};
  __asm__ volatile(
      QXTOOLS_CHANNELS("saddlp") "1:\n\t" QXTOOLS_CHANNELS(
          "sadalp") "subs %[steps], %[steps], #1\n\tb.ne 1b\n\t" QXTOOLS_REDUCE("%0", 16, 17, 18,
                                                                                19)
          QXTOOLS_REDUCE("%1", 20, 21, 22, 23) QXTOOLS_REDUCE("%2", 24, 25, 26, 27)
              QXTOOLS_REDUCE("%3", 28, 29, 30, 31)
      : "=&w"(sums.pixel[0]), "=&w"(sums.pixel[1]), "=&w"(sums.pixel[2]),
        "=&w"(sums.pixel[3]), [left] "+&r"(left), [right] "+&r"(right), [steps] "+&r"(steps)
      : [rest] "r"(rest)
      : "cc", "memory", "v4", "v5", "v6", "v7", "v8", "v9", "v10", "v11", "v12", "v13", "v14",
        "v16", "v17", "v18", "v19", "v20", "v21", "v22", "v23", "v24", "v25", "v26", "v27", "v28",
        "v29", "v30", "v31");
  return sums;
}

// Twice the costs, rounded down, so that half of the next integer is the cost, ties upwards.
// `scale` is doubled, which changes nothing else. `kWide`: some cost may reach 2^22, and the result
// is the integer whose low 8 bits are the cost, from the scale as it is.
template <bool kWide>
QXTOOLS_INLINE int32x4_t Costs(int32x4_t sums, const std::int32_t* bias, float scale) {
  const int32x4_t sum = vaddq_s32(sums, vld1q_s32(bias));
  const float32x4_t value = vmulq_n_f32(vcvtq_f32_s32(sum), scale);
  // The larger of the two is the leaky one below zero and the plain one above.
  const float32x4_t leaky = vmaxq_f32(value, vmulq_n_f32(value, kCostVolumeLeak));
  if constexpr (!kWide) return vcvtmq_s32_f32(leaky);
  // The distance to the integer below is exact, or on the right side of a half (0 > q > -0.5).
  const float32x4_t below = vrndmq_f32(leaky);
  const uint32x4_t up = vcgeq_f32(vsubq_f32(leaky, below), vdupq_n_f32(0.5F));
  return vsubq_s32(vcvtq_s32_f32(below), vreinterpretq_s32_u32(up));
}

// Stores the costs of four pixels, four disparities each, `pitch` bytes from pixel to pixel.
QXTOOLS_INLINE void Store(std::int8_t* cost, std::size_t pitch, int8x16_t costs) {
  __asm__ volatile(
      "st1 {%[costs].s}[0], [%[cost]], %[pitch]\n\tst1 {%[costs].s}[1], [%[cost]], %[pitch]\n\t"
      "st1 {%[costs].s}[2], [%[cost]], %[pitch]\n\tst1 {%[costs].s}[3], [%[cost]]"
      : [cost] "+&r"(cost)
      : [costs] "w"(costs), [pitch] "r"(pitch)
      : "memory");
}

// As Store(), of a tile that reaches out of the volume.
void StorePart(std::int8_t* cost, std::size_t pitch, std::size_t pixels, std::size_t count,
               int8x16_t costs) {
  std::int8_t bytes[kTile * kTile];
  vst1q_s8(bytes, costs);
  for (std::size_t t = 0; t < pixels; ++t) {
    __builtin_memcpy(cost + t * pitch, bytes + t * kTile, count);
  }
}

QXTOOLS_INLINE int16x8_t LowHalves(int32x4_t a, int32x4_t b) {
  return vuzp1q_s16(vreinterpretq_s16_s32(a), vreinterpretq_s16_s32(b));
}

// `bias` is that of the tile's first pixel and disparity.
template <bool kWide>
QXTOOLS_INLINE int8x16_t Narrow(const Sums& sums, const std::int32_t* bias, float scale) {
  const int16x8_t ab = LowHalves(Costs<kWide>(sums.pixel[0], bias, scale),
                                 Costs<kWide>(sums.pixel[1], bias - 1, scale));
  const int16x8_t cd = LowHalves(Costs<kWide>(sums.pixel[2], bias - 2, scale),
                                 Costs<kWide>(sums.pixel[3], bias - 3, scale));
  if constexpr (kWide) return vuzp1q_s8(vreinterpretq_s8_s16(ab), vreinterpretq_s8_s16(cd));
  return vrshrn_high_n_s16(vrshrn_n_s16(ab, 1), cd, 1);
}

// The tiles of four left pixels at column x; `right` and `bias` are those of the first one.
template <bool kWide>
void Strip(const CostVolumeJob& job, const Plan& plan, std::size_t x, const std::int8_t* left,
           const std::int8_t* right, const std::int32_t* bias, std::int8_t* cost) {
  // Stores may alias the arguments: what the loop needs is read once.
  const float scale = kWide ? job.scale : 2 * job.scale;
  const std::size_t pitch = job.disparities;
  const std::size_t steps = plan.channels / 16 - 1;
  const std::size_t rest = plan.columns * 16 - 64;
  const std::size_t pixels = Smaller(job.width - x, kTile);
  const std::size_t end = Smaller(plan.costs, x + pixels);
  const std::size_t whole =
      pixels == kTile ? Smaller(RoundUp(end, kTile), pitch / kTile * kTile) : 0;
  right -= (kTile - 1) * 16;
  std::size_t d = 0;
  for (; d < whole; d += kTile, right -= kTile * 16) {
    Store(cost + d, pitch, Narrow<kWide>(Multiply(left, right, steps, rest), bias + d, scale));
  }
  for (; d < end; d += kTile, right -= kTile * 16) {
    StorePart(cost + d, pitch, pixels, Smaller(pitch - d, kTile),
              Narrow<kWide>(Multiply(left, right, steps, rest), bias + d, scale));
  }
  for (std::size_t t = 0; t < pixels && d < pitch; ++t) {
    __builtin_memset(cost + t * pitch + d, 0, pitch - d);
  }
}

// True if some cost may reach 2^22; also true if the scale is NaN.
bool NeedsWide(const Plan& plan, float scale) {
  const float magnitude = scale < 0 ? -scale : scale;
  return !(static_cast<float>(plan.channels) * 16384.0F * magnitude < 4e6F);
}

std::size_t ScratchBytes(const CostVolumeJob& job) {
  const Plan plan = PlanOf(job);
  return plan.columns * sizeof(std::int32_t) + (plan.columns + kTile) * plan.channels;
}

void ComputeRows(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                 std::uint8_t* scratch) {
  const Plan plan = PlanOf(job);
  const Packed packed = SplitScratch(plan, scratch);
  const auto strip = NeedsWide(plan, job.scale) ? Strip<true> : Strip<false>;
  for (std::size_t y = first_row; y < end_row; ++y) {
    const std::size_t row = y * job.width;
    const Row left{job.left + row * job.channels, job.width, job.channels};
    const Row right{job.right + row * job.channels, job.width, job.channels};
    for (std::size_t first = 0; first < job.width; first += plan.panel) {
      PackRight(right, first, plan, packed);
      for (std::size_t x = 0; x < plan.panel && first + x < job.width; x += kTile) {
        PackLeft(left, first + x, plan, packed.left);
        strip(job, plan, first + x, packed.left,
              packed.right + (plan.columns - plan.panel + x) * 16,
              packed.bias + (plan.panel - 1 - x), job.cost + (row + first + x) * job.disparities);
      }
    }
  }
}

}  // namespace

const CostVolumeKernel kCostVolumeNeon = {ComputeRows, ScratchBytes};

}  // namespace qx::utils::image
