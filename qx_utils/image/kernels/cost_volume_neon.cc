// Cost volume with the baseline of AArch64: register tiles of 4 left pixels x 4 disparities.
//
// A sum is kept as four partial sums over the channels, so rows are read as they are: the tile's
// 16 sums share 7 right pixels. Of every 16 channels the products of the first eight are added to
// those of the last eight in 16 bits, then pairs of these to the sum in 32 bits. To fit 16 bits
// when all values are -128, the last eight left values are complemented and their products
// subtracted: l * r = -(~l) * r - r, and the sums of those r are taken off per right pixel.
#include <arm_neon.h>

#include "qx_utils/image/kernels/cost_volume.h"

#define QXTOOLS_INLINE __attribute__((always_inline)) inline

namespace qx {
namespace utils {
namespace image {
namespace {

constexpr std::size_t kTile = 4;                               // left pixels, and disparities
constexpr std::size_t kTileRight = 2 * kTile - 1;              // right pixels
constexpr std::size_t kPackedBudget = std::size_t{64} * 1024;  // bytes of packed left pixels

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
  const std::size_t fitting = kPackedBudget / plan.channels / kTile * kTile;
  plan.panel = Smaller(RoundUp(job.width, kTile), fitting == 0 ? kTile : fitting);
  plan.columns = plan.panel + RoundUp(plan.costs, kTile);
  return plan;
}

// Scratch of a thread.
struct Packed {
  std::int32_t* bias;  // what a right column's sums are too high by, negated; last column first
  std::int8_t* left;   // the panel's pixels, the last eight of every 16 channels complemented
  std::int8_t* edge;   // right pixels of a tile that reaches out of the row
};

Packed SplitScratch(const Plan& plan, std::uint8_t* scratch) {
  Packed packed{};
  packed.bias = reinterpret_cast<std::int32_t*>(scratch);
  packed.left = reinterpret_cast<std::int8_t*>(scratch) + plan.columns * sizeof(std::int32_t);
  packed.edge = packed.left + plan.panel * plan.channels;
  return packed;
}

struct Row {
  const std::int8_t* pixels;
  std::size_t width;
  std::size_t channels;  // distance of pixels
};

// A column's pixel, or null outside the row: such a pixel counts as zeros.
const std::int8_t* PixelAt(const Row& row, std::ptrdiff_t column) {
  const bool inside = column >= 0 && column < static_cast<std::ptrdiff_t>(row.width);
  return inside ? row.pixels + static_cast<std::size_t>(column) * row.channels : nullptr;
}

void PackLeft(const Row& row, std::size_t first, const Plan& plan, std::int8_t* to) {
  const int8x16_t flip = vcombine_s8(vdup_n_s8(0), vdup_n_s8(-1));
  for (std::size_t x = 0; x < plan.panel; ++x, to += plan.channels) {
    const std::int8_t* pixel = PixelAt(row, static_cast<std::ptrdiff_t>(first + x));
    for (std::size_t c = 0; c < plan.channels; c += 16) {
      vst1q_s8(to + c, veorq_s8(pixel == nullptr ? vdupq_n_s8(0) : vld1q_s8(pixel + c), flip));
    }
  }
}

void FillBias(const Row& row, std::size_t first, const Plan& plan, std::int32_t* bias) {
  const auto last = static_cast<std::ptrdiff_t>(first + plan.panel - 1);
  for (std::size_t at = 0; at < plan.columns; ++at) {
    const std::int8_t* pixel = PixelAt(row, last - static_cast<std::ptrdiff_t>(at));
    int32x2_t sums = vdup_n_s32(0);
    for (std::size_t c = 0; pixel != nullptr && c < plan.channels; c += 16) {
      sums = vpadal_s16(sums, vpaddl_s8(vld1_s8(pixel + c + 8)));
    }
    bias[at] = -vaddv_s32(sums);
  }
}

using Sums = int32x4_t[kTile][kTile];  // [left pixel][disparity]: sums over channels, in four parts

// The four products of a disparity go side by side, as an in-order processor wants them, in a block
// of assembly: clang 14 interleaves the intrinsics of all 16 and spills half of them.
#define QXTOOLS_PRODUCTS                                               \
  "smull %0.8h, %8.8b, %12.8b\n\tsmull %1.8h, %9.8b, %13.8b\n\t"       \
  "smull %2.8h, %10.8b, %14.8b\n\tsmull %3.8h, %11.8b, %15.8b\n\t"     \
  "smlsl2 %0.8h, %8.16b, %12.16b\n\tsmlsl2 %1.8h, %9.16b, %13.16b\n\t" \
  "smlsl2 %2.8h, %10.16b, %14.16b\n\tsmlsl2 %3.8h, %11.16b, %15.16b\n\t"
#define QXTOOLS_PAIRS(add) \
  add " %4.4s, %0.8h\n\t" add " %5.4s, %1.8h\n\t" add " %6.4s, %2.8h\n\t" add " %7.4s, %3.8h"

// Adds 16 channels of disparity kDisparity of the tile; the first call starts the sums.
template <bool kFirst, std::size_t kDisparity>
QXTOOLS_INLINE void AddDisparity(const int8x16_t (&left)[kTile],
                                 const int8x16_t (&right)[kTileRight], Sums& sums) {
  int16x8_t p0;
  int16x8_t p1;
  int16x8_t p2;
  int16x8_t p3;
  constexpr std::size_t kRight = kTile - 1 - kDisparity;  // of the first left pixel
  if constexpr (kFirst) {
    __asm__ volatile(QXTOOLS_PRODUCTS QXTOOLS_PAIRS("saddlp")
                     : "=&w"(p0), "=&w"(p1), "=&w"(p2), "=&w"(p3), "=&w"(sums[0][kDisparity]),
                       "=&w"(sums[1][kDisparity]), "=&w"(sums[2][kDisparity]),
                       "=&w"(sums[3][kDisparity])
                     : "w"(left[0]), "w"(left[1]), "w"(left[2]), "w"(left[3]), "w"(right[kRight]),
                       "w"(right[kRight + 1]), "w"(right[kRight + 2]), "w"(right[kRight + 3]));
  } else {
    __asm__ volatile(QXTOOLS_PRODUCTS QXTOOLS_PAIRS("sadalp")
                     : "=&w"(p0), "=&w"(p1), "=&w"(p2), "=&w"(p3), "+&w"(sums[0][kDisparity]),
                       "+&w"(sums[1][kDisparity]), "+&w"(sums[2][kDisparity]),
                       "+&w"(sums[3][kDisparity])
                     : "w"(left[0]), "w"(left[1]), "w"(left[2]), "w"(left[3]), "w"(right[kRight]),
                       "w"(right[kRight + 1]), "w"(right[kRight + 2]), "w"(right[kRight + 3]));
  }
}

template <bool kFirst>
QXTOOLS_INLINE void AddChannels(const std::int8_t* left, std::size_t left_pitch,
                                const std::int8_t* right, std::size_t right_pitch, Sums& sums) {
  const int8x16_t l[kTile] = {vld1q_s8(left), vld1q_s8(left + left_pitch),
                              vld1q_s8(left + 2 * left_pitch), vld1q_s8(left + 3 * left_pitch)};
  const int8x16_t r[kTileRight] = {
      vld1q_s8(right),
      vld1q_s8(right + right_pitch),
      vld1q_s8(right + 2 * right_pitch),
      vld1q_s8(right + 3 * right_pitch),
      vld1q_s8(right + 4 * right_pitch),
      vld1q_s8(right + 5 * right_pitch),
      vld1q_s8(right + 6 * right_pitch),
  };
  AddDisparity<kFirst, 0>(l, r, sums);
  AddDisparity<kFirst, 1>(l, r, sums);
  AddDisparity<kFirst, 2>(l, r, sums);
  AddDisparity<kFirst, 3>(l, r, sums);
}

// The integers whose low 8 bits are the costs. `kWide`: some cost may reach 2^22.
template <bool kWide>
QXTOOLS_INLINE int32x4_t Costs(const int32x4_t (&sums)[kTile], const std::int32_t* bias,
                               float scale) {
  const int32x4_t sum = vaddq_s32(
      vpaddq_s32(vpaddq_s32(sums[0], sums[1]), vpaddq_s32(sums[2], sums[3])), vld1q_s32(bias));
  const float32x4_t value = vmulq_n_f32(vcvtq_f32_s32(sum), scale);
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

// Where a tile's costs go.
struct Target {
  std::int8_t* cost;   // of its first pixel and disparity
  std::size_t pitch;   // bytes from pixel to pixel
  std::size_t pixels;  // that exist, at most kTile
  std::size_t costs;   // that exist, at most kTile
};

void StorePart(const Target& to, int8x16_t costs) {
  std::int8_t bytes[kTile * kTile];
  vst1q_s8(bytes, costs);
  for (std::size_t t = 0; t < to.pixels; ++t) {
    __builtin_memcpy(to.cost + t * to.pitch, bytes + t * kTile, to.costs);
  }
}

QXTOOLS_INLINE void Store(const Target& to, int8x16_t costs) {
  if (to.pixels != kTile || to.costs != kTile) {
    StorePart(to, costs);
    return;
  }
  const std::uint32_t words[kTile] = {vgetq_lane_u32(vreinterpretq_u32_s8(costs), 0),
                                      vgetq_lane_u32(vreinterpretq_u32_s8(costs), 1),
                                      vgetq_lane_u32(vreinterpretq_u32_s8(costs), 2),
                                      vgetq_lane_u32(vreinterpretq_u32_s8(costs), 3)};
  __builtin_memcpy(to.cost, &words[0], kTile);
  __builtin_memcpy(to.cost + to.pitch, &words[1], kTile);
  __builtin_memcpy(to.cost + 2 * to.pitch, &words[2], kTile);
  __builtin_memcpy(to.cost + 3 * to.pitch, &words[3], kTile);
}

QXTOOLS_INLINE int16x8_t LowHalves(int32x4_t a, int32x4_t b) {
  return vuzp1q_s16(vreinterpretq_s16_s32(a), vreinterpretq_s16_s32(b));
}

// `right` is the leftmost of the tile's right pixels; `bias` that of its first pixel and disparity.
template <bool kWide>
QXTOOLS_INLINE void Tile(const std::int8_t* left, std::size_t channels, const std::int8_t* right,
                         std::size_t right_pitch, const std::int32_t* bias, float scale,
                         const Target& to) {
  Sums sums;
  AddChannels<true>(left, channels, right, right_pitch, sums);
  __asm__ volatile("" ::: "memory");  // loads that move up across it would spill
  AddChannels<false>(left + 16, channels, right + 16, right_pitch, sums);
  for (std::size_t c = kCostVolumeBlock; c < channels; c += 16) {
    AddChannels<false>(left + c, channels, right + c, right_pitch, sums);
  }
  const int16x8_t ab =
      LowHalves(Costs<kWide>(sums[0], bias, scale), Costs<kWide>(sums[1], bias - 1, scale));
  const int16x8_t cd =
      LowHalves(Costs<kWide>(sums[2], bias - 2, scale), Costs<kWide>(sums[3], bias - 3, scale));
  Store(to, vuzp1q_s8(vreinterpretq_s8_s16(ab), vreinterpretq_s8_s16(cd)));
}

// Copies the right pixels from `column` on, with zeros for those outside the row.
void CopyEdge(const Row& row, std::ptrdiff_t column, std::size_t channels, std::int8_t* to) {
  for (std::size_t k = 0; k < kTileRight; ++k, to += channels) {
    const std::int8_t* pixel = PixelAt(row, column + static_cast<std::ptrdiff_t>(k));
    if (pixel == nullptr) {
      __builtin_memset(to, 0, channels);
    } else {
      __builtin_memcpy(to, pixel, channels);
    }
  }
}

// The tiles of four left pixels at column x; `left` are those pixels and `bias` the first one's.
template <bool kWide>
void Strip(const CostVolumeJob& job, const Plan& plan, const Row& right, std::size_t x,
           const std::int8_t* left, const std::int32_t* bias, const Packed& packed,
           std::int8_t* cost) {
  Target to{cost, job.disparities, Smaller(job.width - x, kTile), kTile};
  std::size_t d = 0;
  for (; d < plan.costs && d < x + to.pixels; d += kTile) {
    to.cost = cost + d;
    to.costs = Smaller(job.disparities - d, kTile);
    const auto leftmost = static_cast<std::ptrdiff_t>(x) - static_cast<std::ptrdiff_t>(d + 3);
    if (leftmost >= 0 && x - d + kTile <= job.width) {
      Tile<kWide>(left, plan.channels,
                  right.pixels + static_cast<std::size_t>(leftmost) * right.channels,
                  right.channels, bias + d, job.scale, to);
    } else {
      CopyEdge(right, leftmost, plan.channels, packed.edge);
      Tile<kWide>(left, plan.channels, packed.edge, plan.channels, bias + d, job.scale, to);
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

std::size_t CostVolumeScratchNeon(const CostVolumeJob& job) {
  const Plan plan = PlanOf(job);
  return plan.columns * sizeof(std::int32_t) + (plan.panel + kTileRight) * plan.channels;
}

void CostVolumeRowsNeon(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                        std::uint8_t* scratch) {
  const Plan plan = PlanOf(job);
  const Packed packed = SplitScratch(plan, scratch);
  const auto strip = NeedsWide(plan, job.scale) ? Strip<true> : Strip<false>;
  for (std::size_t y = first_row; y < end_row; ++y) {
    const std::size_t row = y * job.width;
    const Row left{job.left + row * job.channels, job.width, job.channels};
    const Row right{job.right + row * job.channels, job.width, job.channels};
    for (std::size_t first = 0; first < job.width; first += plan.panel) {
      PackLeft(left, first, plan, packed.left);
      FillBias(right, first, plan, packed.bias);
      for (std::size_t x = 0; x < plan.panel && first + x < job.width; x += kTile) {
        strip(job, plan, right, first + x, packed.left + x * plan.channels,
              packed.bias + (plan.panel - 1 - x), packed,
              job.cost + (row + first + x) * job.disparities);
      }
    }
  }
}

}  // namespace image
}  // namespace utils
}  // namespace qx
