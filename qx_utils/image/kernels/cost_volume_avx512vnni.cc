// Cost volume with AVX-512 VNNI: register tiles of 4 x 5 blocks, a block being 4 x 4 pixels.
//
// The unit is the quad, four neighbouring pixels whose first column is a multiple of four. A vector
// of sums holds the 4 x 4 pairs of a left and a right quad, (left pixel i, right pixel 3 - j) in
// lane 4i + j: its disparities rise with j. For every four channels the left factor repeats pixel i
// in its 128-bit part i; it is packed that way for the 16 pixels of a strip, which all disparities
// share. The right factor is a record of 16 bytes, repeated in each part as it is loaded. A tile
// takes 4 left quads and, slanted along the band, 4 or 5 right quads for each of them, so 12 loads
// feed 20 multiplications. Of the band's edges only triangles of 3 disparities are computed in
// vain.
#include <immintrin.h>

#include "qx_utils/image/kernels/cost_volume.h"

#if defined(__clang__)
#define QXTOOLS_UNROLL _Pragma("clang loop unroll(full)")
#else
#define QXTOOLS_UNROLL _Pragma("GCC unroll 16")
#endif
#define QXTOOLS_INLINE __attribute__((always_inline)) inline

namespace qx {
namespace utils {
namespace image {
namespace {

constexpr std::size_t kQuad = 4;        // pixels
constexpr std::size_t kStripQuads = 4;  // left quads of a strip and of each tile
constexpr std::size_t kStrip = kQuad * kStripQuads;
constexpr std::size_t kGroup = 4;    // blocks whose costs are narrowed together
constexpr std::size_t kRecord = 64;  // bytes: four channels of a left quad
constexpr std::size_t kPackedBudget = std::size_t{192} * 1024;  // bytes of packed right columns

std::size_t RoundUp(std::size_t value, std::size_t unit) {
  return (value + unit - 1) / unit * unit;
}
std::size_t Smaller(std::size_t a, std::size_t b) { return a < b ? a : b; }

// Blocks that a left quad needs for `costs` disparities: block m has 4m + i + j - 3. One more than
// a whole number of groups is a tile of five; otherwise the last group is filled up.
std::size_t Blocks(std::size_t costs) {
  const std::size_t blocks = (costs + 6) / 4;
  return blocks > 1 && blocks % kGroup == 1 ? blocks : RoundUp(blocks, kGroup);
}

// How a job is cut: columns are worked on in panels so that scratch stays bounded.
struct Plan {
  std::size_t channels;  // in whole blocks
  std::size_t lead;      // right columns that a panel needs before its first
  std::size_t panel;     // columns, in whole strips
  std::size_t line;      // bytes from pixel to pixel of a strip's costs
};

Plan PlanOf(const CostVolumeJob& job) {
  Plan plan{};
  plan.channels = job.channels / kCostVolumeBlock * kCostVolumeBlock;
  plan.lead = kQuad * Blocks(Smaller(job.disparities, job.width));
  const std::size_t fitting = kPackedBudget / plan.channels / kStrip * kStrip;
  // At least half of what is packed is used for the first time.
  const std::size_t lead = RoundUp(plan.lead, kStrip);
  plan.panel = Smaller(RoundUp(job.width, kStrip), fitting > 2 * lead ? fitting - lead : lead);
  plan.line = RoundUp(plan.lead, kCostVolumeAlignment);
  return plan;
}

// Scratch of a thread.
struct Packed {
  std::uint8_t* right;  // quads, last pixel first, 16 bytes for every four channels
  std::int8_t* left;    // the strip's quads, kRecord bytes for every four channels
  std::int32_t* bias;   // per lane of a left quad: what the flipped sign bits add, negated
  std::int8_t* lines;   // the strip's costs; that of disparity d at byte d + 3 - i
};

std::size_t RightBytes(const Plan& plan) { return (plan.lead + plan.panel) * plan.channels; }
std::size_t QuadBytes(const Plan& plan) { return kQuad * plan.channels; }
std::size_t LeftBytes(const Plan& plan) { return kStripQuads * kQuad * QuadBytes(plan); }

Packed SplitScratch(const Plan& plan, std::uint8_t* scratch) {
  Packed packed{};
  packed.right = scratch;
  packed.left = reinterpret_cast<std::int8_t*>(scratch + RightBytes(plan));
  packed.lines = packed.left + LeftBytes(plan);
  packed.bias = reinterpret_cast<std::int32_t*>(packed.lines + kStrip * plan.line);
  return packed;
}

struct Row {
  const std::int8_t* pixels;
  std::size_t width;
  std::size_t channels;  // distance of pixels
};

// A quad's pixels. Behind the row the last one is repeated: nothing made of it is kept.
struct Quad {
  const std::int8_t* pixel[kQuad];
};

QXTOOLS_INLINE Quad QuadAt(const Row& row, std::size_t column) {
  const std::size_t last = row.width - 1;
  return {{row.pixels + Smaller(column, last) * row.channels,
           row.pixels + Smaller(column + 1, last) * row.channels,
           row.pixels + Smaller(column + 2, last) * row.channels,
           row.pixels + Smaller(column + 3, last) * row.channels}};
}

// Turns four pixels x four channels-of-four into records, in each 128-bit part by itself.
QXTOOLS_INLINE void Transpose(const __m512i in[4], __m512i out[4]) {
  const __m512i ab_low = _mm512_unpacklo_epi32(in[0], in[1]);
  const __m512i ab_high = _mm512_unpackhi_epi32(in[0], in[1]);
  const __m512i cd_low = _mm512_unpacklo_epi32(in[2], in[3]);
  const __m512i cd_high = _mm512_unpackhi_epi32(in[2], in[3]);
  out[0] = _mm512_unpacklo_epi64(ab_low, cd_low);
  out[1] = _mm512_unpackhi_epi64(ab_low, cd_low);
  out[2] = _mm512_unpacklo_epi64(ab_high, cd_high);
  out[3] = _mm512_unpackhi_epi64(ab_high, cd_high);
}

// Packs 64 channels of a right quad (kParts = 4) or a last block of 32 (kParts = 2), with the sign
// bits flipped.
template <std::size_t kParts>
QXTOOLS_INLINE void PackRightChannels(const Quad& quad, std::size_t c, std::uint8_t* to) {
  constexpr __mmask16 kMask = kParts == 4 ? 0xFFFF : 0x00FF;
  const __m512i flip = _mm512_set1_epi8(-128);
  const __m512i in[4] = {_mm512_maskz_loadu_epi32(kMask, quad.pixel[3] + c),
                         _mm512_maskz_loadu_epi32(kMask, quad.pixel[2] + c),
                         _mm512_maskz_loadu_epi32(kMask, quad.pixel[1] + c),
                         _mm512_maskz_loadu_epi32(kMask, quad.pixel[0] + c)};
  __m512i out[4];
  Transpose(in, out);
  QXTOOLS_UNROLL
  for (std::size_t k = 0; k < 4; ++k) {
    const __m512i flipped = _mm512_xor_si512(out[k], flip);
    if (kParts == 4) {
      _mm512_store_si512(to + k * 64, flipped);
    } else {
      _mm256_store_si256(reinterpret_cast<__m256i*>(to + k * 32), _mm512_castsi512_si256(flipped));
    }
  }
}

// `count` columns from `column` on, which may be left of the row.
void PackRight(const Row& row, std::ptrdiff_t column, std::size_t count, const Plan& plan,
               std::uint8_t* to) {
  for (std::size_t t = 0; t < count; t += kQuad, to += QuadBytes(plan)) {
    const std::ptrdiff_t at = column + static_cast<std::ptrdiff_t>(t);
    if (at < 0) {
      __builtin_memset(to, 0x80, QuadBytes(plan));
    } else {
      const Quad quad = QuadAt(row, static_cast<std::size_t>(at));
      std::size_t c = 0;
      for (; c + 64 <= plan.channels; c += 64) PackRightChannels<4>(quad, c, to + c * kQuad);
      if (c < plan.channels) PackRightChannels<2>(quad, c, to + c * kQuad);
    }
  }
}

QXTOOLS_INLINE __m128i Load16(const std::int8_t* from) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

// Packs as many channels of a left quad, in the order in which Transpose() leaves the right ones;
// adds them to the sums of pixel i in part i.
template <std::size_t kParts>
QXTOOLS_INLINE __m512i PackLeftChannels(const Quad& quad, std::size_t c, std::int8_t* to,
                                        __m512i sums) {
  constexpr std::size_t kStep = kParts * kRecord;
  QXTOOLS_UNROLL
  for (std::size_t part = 0; part < kParts; ++part, c += 16, to += kRecord) {
    __m512i in = _mm512_castsi128_si512(Load16(quad.pixel[0] + c));
    in = _mm512_inserti32x4(in, Load16(quad.pixel[1] + c), 1);
    in = _mm512_inserti32x4(in, Load16(quad.pixel[2] + c), 2);
    in = _mm512_inserti32x4(in, Load16(quad.pixel[3] + c), 3);
    sums = _mm512_dpbusd_epi32(sums, _mm512_set1_epi8(1), in);
    _mm512_store_si512(to, _mm512_shuffle_epi32(in, _MM_PERM_AAAA));
    _mm512_store_si512(to + kStep, _mm512_shuffle_epi32(in, _MM_PERM_BBBB));
    _mm512_store_si512(to + 2 * kStep, _mm512_shuffle_epi32(in, _MM_PERM_CCCC));
    _mm512_store_si512(to + 3 * kStep, _mm512_shuffle_epi32(in, _MM_PERM_DDDD));
  }
  return sums;
}

void PackLeftQuad(const Quad& quad, std::size_t channels, std::int8_t* to, std::int32_t* bias) {
  __m512i sums = _mm512_setzero_si512();
  std::size_t c = 0;
  for (; c + 64 <= channels; c += 64) sums = PackLeftChannels<4>(quad, c, to + c * 16, sums);
  if (c < channels) sums = PackLeftChannels<2>(quad, c, to + c * 16, sums);
  sums = _mm512_add_epi32(sums, _mm512_shuffle_epi32(sums, _MM_PERM_BADC));
  sums = _mm512_add_epi32(sums, _mm512_shuffle_epi32(sums, _MM_PERM_CDAB));
  // Flipping the sign bit of a right value adds 128 to it.
  _mm512_store_si512(bias, _mm512_sub_epi32(_mm512_setzero_si512(), _mm512_slli_epi32(sums, 7)));
}

// The left pixels of the strip at column x.
void PackLeft(const Row& row, std::size_t x, const Plan& plan, const Packed& packed) {
  for (std::size_t q = 0; q < kStripQuads; ++q) {
    PackLeftQuad(QuadAt(row, x + q * kQuad), plan.channels,
                 packed.left + q * kQuad * QuadBytes(plan), packed.bias + q * 16);
  }
}

// Those of a tile: [left quad][block].
template <std::size_t kBlocks>
using Sums = __m512i[kStripQuads][kBlocks];

// The loops over registers are recursions with constant indices: arrays that a loop variable
// indexes would be kept in memory. Left quads kLeft and on take right quad kRight of the tile.
template <std::size_t kBlocks, std::size_t kRight, std::size_t kLeft = 0>
QXTOOLS_INLINE void AddProducts(__m512i right, const __m512i (&left)[kStripQuads],
                                Sums<kBlocks>& sums) {
  if constexpr (kLeft < kStripQuads) {
    if constexpr (kLeft <= kRight && kRight < kLeft + kBlocks) {
      __m512i& sum = sums[kLeft][kLeft + kBlocks - 1 - kRight];
      // As _mm512_dpbusd_epi32(), with the sum tied to its register: GCC 12 copies and spills all
      // sums around that intrinsic, which costs a third of the speed.
      __asm__("vpdpbusd %2, %1, %0" : "+v"(sum) : "v"(right), "v"(left[kLeft]));
    }
    AddProducts<kBlocks, kRight, kLeft + 1>(right, left, sums);
  }
}

template <std::size_t kBlocks, std::size_t kRight = 0>
QXTOOLS_INLINE void AddQuads(const std::uint8_t* right, std::size_t quad_bytes,
                             const __m512i (&left)[kStripQuads], Sums<kBlocks>& sums) {
  if constexpr (kRight < kBlocks + kStripQuads - 1) {
    const __m128i record =
        _mm_load_si128(reinterpret_cast<const __m128i*>(right + kRight * quad_bytes));
    AddProducts<kBlocks, kRight>(_mm512_broadcast_i32x4(record), left, sums);
    AddQuads<kBlocks, kRight + 1>(right, quad_bytes, left, sums);
  }
}

// `right` is the quad of the first left quad and the last block.
template <std::size_t kBlocks>
QXTOOLS_INLINE void Multiply(const std::int8_t* left, const std::uint8_t* right,
                             std::size_t quad_bytes, Sums<kBlocks>& sums) {
  const std::size_t left_bytes = kQuad * quad_bytes;
  for (std::size_t at = 0; at < quad_bytes; at += 16, left += kRecord) {
    const __m512i l[kStripQuads] = {_mm512_load_si512(left), _mm512_load_si512(left + left_bytes),
                                    _mm512_load_si512(left + 2 * left_bytes),
                                    _mm512_load_si512(left + 3 * left_bytes)};
    AddQuads<kBlocks>(right + at, quad_bytes, l, sums);
  }
}

// Scaled and leaky costs; adding a half downwards and rounding downwards is exact for all floats.
QXTOOLS_INLINE __m512i Round(__m512i sums, __m512 scale) {
  const __m512 value = _mm512_mul_ps(_mm512_cvtepi32_ps(sums), scale);
  // The larger of the two is the leaky one below zero and the plain one above.
  const __m512 leaky = _mm512_max_ps(value, _mm512_mul_ps(value, _mm512_set1_ps(kCostVolumeLeak)));
  constexpr int kDown = _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC;
  const __m512 moved = _mm512_add_round_ps(leaky, _mm512_set1_ps(0.5F), kDown);
  return _mm512_cvt_roundps_epi32(moved, kDown);
}

// As Round() when kWide is false. Otherwise the scale can leave the range of 16 bits: what does
// not fit 32 bits becomes 0x80000000 there, whose low byte is right for all but positive values.
template <bool kWide>
QXTOOLS_INLINE __m512i Cost(__m512i sums, __m512 scale) {
  const __m512i rounded = Round(sums, scale);
  if constexpr (!kWide) return rounded;
  const __m512 value = _mm512_mul_ps(_mm512_cvtepi32_ps(sums), scale);
  const __mmask16 high = _mm512_cmp_ps_mask(value, _mm512_set1_ps(2147483648.0F), _CMP_GE_OQ);
  const __m512i low8 = _mm512_and_si512(rounded, _mm512_set1_epi32(0xFF));
  return _mm512_mask_mov_epi32(low8, high, _mm512_set1_epi32(0xFF));
}

// The low bytes of four vectors; in each 128-bit part, those of `a` come first.
QXTOOLS_INLINE __m512i LowBytes(__m512i a, __m512i b, __m512i c, __m512i d) {
  const __m512i low = _mm512_set1_epi16(0xFF);
  return _mm512_packus_epi16(_mm512_and_si512(_mm512_packs_epi32(a, b), low),
                             _mm512_and_si512(_mm512_packs_epi32(c, d), low));
}

QXTOOLS_INLINE void Store16(std::int8_t* to, __m128i bytes) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to), bytes);
}

// The costs of a left quad: pixel i has those of four blocks in part i.
template <bool kWide, std::size_t kBlocks, std::size_t kLeft = 0>
QXTOOLS_INLINE void StoreGroups(const Sums<kBlocks>& sums, __m512 scale, std::int8_t* line,
                                std::size_t pitch) {
  if constexpr (kLeft < kStripQuads) {
    const __m512i costs =
        LowBytes(Cost<kWide>(sums[kLeft][0], scale), Cost<kWide>(sums[kLeft][1], scale),
                 Cost<kWide>(sums[kLeft][2], scale), Cost<kWide>(sums[kLeft][3], scale));
    Store16(line, _mm512_castsi512_si128(costs));
    Store16(line + pitch, _mm512_extracti32x4_epi32(costs, 1));
    Store16(line + 2 * pitch, _mm512_extracti32x4_epi32(costs, 2));
    Store16(line + 3 * pitch, _mm512_extracti32x4_epi32(costs, 3));
    StoreGroups<kWide, kBlocks, kLeft + 1>(sums, scale, line + kQuad * pitch, pitch);
  }
}

// The fifth block of all four left quads: dword q of part i is that of pixel 4q + i.
template <bool kWide>
QXTOOLS_INLINE void StoreFifth(const Sums<5>& sums, __m512 scale, std::int8_t* line,
                               std::size_t pitch) {
  alignas(64) std::int32_t words[kQuad][kStripQuads];
  _mm512_store_si512(words,
                     LowBytes(Cost<kWide>(sums[0][4], scale), Cost<kWide>(sums[1][4], scale),
                              Cost<kWide>(sums[2][4], scale), Cost<kWide>(sums[3][4], scale)));
  QXTOOLS_UNROLL
  for (std::size_t t = 0; t < kStrip; ++t) {
    __builtin_memcpy(line + t * pitch, &words[t % kQuad][t / kQuad], kQuad);
  }
}

template <std::size_t kBlocks, std::size_t kLeft = 0>
QXTOOLS_INLINE void StartSums(const std::int32_t* bias, Sums<kBlocks>& sums) {
  if constexpr (kLeft < kStripQuads) {
    const __m512i start = _mm512_load_si512(bias + kLeft * 16);
    sums[kLeft][0] = sums[kLeft][1] = sums[kLeft][2] = sums[kLeft][3] = start;
    if constexpr (kBlocks == 5) sums[kLeft][4] = start;
    StartSums<kBlocks, kLeft + 1>(bias, sums);
  }
}

template <bool kWide, std::size_t kBlocks>
void Tile(const Packed& packed, const std::uint8_t* right, const Plan& plan, float scale,
          std::int8_t* line) {
  Sums<kBlocks> sums;
  StartSums<kBlocks>(packed.bias, sums);
  Multiply<kBlocks>(packed.left, right, QuadBytes(plan), sums);
  const __m512 scales = _mm512_set1_ps(scale);
  StoreGroups<kWide, kBlocks>(sums, scales, line, plan.line);
  if constexpr (kBlocks == 5) StoreFifth<kWide>(sums, scales, line + kGroup * kQuad, plan.line);
}

// Copies `count` costs of a line to their place, then as many zeros as are left of `all`.
QXTOOLS_INLINE void StorePixel(const std::int8_t* line, std::size_t count, std::size_t all,
                               std::int8_t* cost) {
  std::size_t d = 0;
  for (; d + 64 <= count; d += 64) _mm512_storeu_si512(cost + d, _mm512_loadu_si512(line + d));
  for (; d + 16 <= count; d += 16) {
    Store16(cost + d, Load16(line + d));
  }
  if (d < count) __builtin_memcpy(cost + d, line + d, count - d);
  if (count < all) __builtin_memset(cost + count, 0, all - count);
}

// All disparities of the strip at column x; `right` is the packed quad at x, `cost` is pixel x.
template <bool kWide>
void Strip(const CostVolumeJob& job, const Plan& plan, const Packed& packed, std::size_t x,
           const std::uint8_t* right, std::int8_t* cost) {
  // Every pixel of the strip lies left of the disparities from here on.
  const std::size_t costs = Smaller(Smaller(job.disparities, job.width), x + kStrip);
  const std::size_t blocks = Blocks(costs);
  std::size_t m = 0;
  for (; m + kGroup + 1 < blocks; m += kGroup) {
    Tile<kWide, 4>(packed, right - (m + 3) * QuadBytes(plan), plan, job.scale,
                   packed.lines + m * kQuad);
  }
  if (m + kGroup == blocks) {
    Tile<kWide, 4>(packed, right - (m + 3) * QuadBytes(plan), plan, job.scale,
                   packed.lines + m * kQuad);
  } else {
    Tile<kWide, 5>(packed, right - (m + 4) * QuadBytes(plan), plan, job.scale,
                   packed.lines + m * kQuad);
  }
  for (std::size_t t = 0; t < kStrip && x + t < job.width; ++t) {
    StorePixel(packed.lines + t * plan.line + 3 - t % kQuad, costs, job.disparities,
               cost + t * job.disparities);
  }
}

// Whether some sum can make a cost that 16 bits do not hold; true for a scale that is no number.
bool NeedsWide(const Plan& plan, float scale) {
  const float magnitude = scale < 0 ? -scale : scale;
  return !(static_cast<float>(plan.channels) * 16384.0F * magnitude < 32000.0F);
}

// Asks for the pixels of a strip, while the tiles of the one before hide the wait.
void Prefetch(const Row& row, std::size_t x) {
  if (x + kStrip > row.width) return;
  const std::int8_t* pixel = row.pixels + x * row.channels;
  for (std::size_t at = 0; at < kStrip * row.channels; at += kCostVolumeAlignment) {
    _mm_prefetch(reinterpret_cast<const char*>(pixel + at), _MM_HINT_T0);
  }
}

// The columns from `first` on, as many as a panel has.
void Panel(const CostVolumeJob& job, const Plan& plan, const Packed& packed, std::size_t row,
           std::size_t first) {
  const auto strip = NeedsWide(plan, job.scale) ? Strip<true> : Strip<false>;
  const Row left{job.left + row * job.width * job.channels, job.width, job.channels};
  const Row right{job.right + row * job.width * job.channels, job.width, job.channels};
  PackRight(right, static_cast<std::ptrdiff_t>(first) - static_cast<std::ptrdiff_t>(plan.lead),
            plan.lead, plan, packed.right);
  std::uint8_t* quads = packed.right + plan.lead * plan.channels;
  const std::size_t end = Smaller(first + plan.panel, job.width);
  for (std::size_t x = first; x < end; x += kStrip, quads += kStrip * plan.channels) {
    PackLeft(left, x, plan, packed);
    PackRight(right, static_cast<std::ptrdiff_t>(x), kStrip, plan, quads);
    Prefetch(left, x + kStrip);
    Prefetch(right, x + kStrip);
    strip(job, plan, packed, x, quads, job.cost + (row * job.width + x) * job.disparities);
  }
}

}  // namespace

std::size_t CostVolumeScratchAvx512Vnni(const CostVolumeJob& job) {
  const Plan plan = PlanOf(job);
  return RightBytes(plan) + LeftBytes(plan) + kStrip * plan.line +
         kStripQuads * 16 * sizeof(std::int32_t);
}

void CostVolumeRowsAvx512Vnni(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                              std::uint8_t* scratch) {
  const Plan plan = PlanOf(job);
  const Packed packed = SplitScratch(plan, scratch);
  for (std::size_t y = first_row; y < end_row; ++y) {
    for (std::size_t first = 0; first < job.width; first += plan.panel) {
      Panel(job, plan, packed, y, first);
    }
  }
}

}  // namespace image
}  // namespace utils
}  // namespace qx
