// Cost volume with AVX-512 VNNI: register tiles of 20 left pixels x 16 disparities.
//
// The unit is the quad, four neighbouring pixels. A vector of sums holds, for one left quad at
// column x, the 4 x 4 pairs (pixel x + j, disparity 4m + i) in lane 4i + j. Its left factor is
// four channels of the quad's pixels, repeated in each 128-bit part; its right factor is the
// window R[a + j - i], a = x - 4m, made of two neighbouring right quads when the row is packed. A
// window depends on x - 4m alone, so the tile's 5 x 4 vectors share 8 windows, and as long as the
// number of disparities is a multiple of 16 no lane is computed in vain.
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
constexpr std::size_t kTileQuads = 5;   // left quads of a tile
constexpr std::size_t kTileCosts = 16;  // disparities of a tile, four per vector
constexpr std::size_t kTileWidth = kQuad * kTileQuads;
constexpr std::size_t kWindow = 64;  // bytes: four channels of a quad's window
constexpr std::size_t kPackedBudget =
    std::size_t{512} * 1024;  // bytes of scratch, well inside a 1 MiB L2

std::size_t RoundUp(std::size_t value, std::size_t unit) {
  return (value + unit - 1) / unit * unit;
}
std::size_t Smaller(std::size_t a, std::size_t b) { return a < b ? a : b; }

// How a job is cut: columns are worked on in panels so that scratch stays bounded.
struct Plan {
  std::size_t channels;  // in whole blocks
  std::size_t costs;     // disparities that some pixel has, in whole tiles
  std::size_t panel;     // columns, in whole tiles
};

Plan PlanOf(const CostVolumeJob& job) {
  Plan plan{};
  plan.channels = job.channels / kCostVolumeBlock * kCostVolumeBlock;
  plan.costs = RoundUp(Smaller(job.disparities, job.width), kTileCosts);
  // A left column takes a byte per channel, a right one four.
  const std::size_t bytes = kPackedBudget / plan.channels;
  const std::size_t fitting =
      bytes > 4 * plan.costs ? (bytes - 4 * plan.costs) / 5 / kTileWidth * kTileWidth : 0;
  plan.panel = Smaller(RoundUp(job.width, kTileWidth), fitting == 0 ? kTileWidth : fitting);
  return plan;
}

// Scratch of a thread. A packed quad holds a 16-byte record for every four channels: those channels
// of the four pixels. The order of the records is any, but the same for both maps.
struct Packed {
  std::uint8_t* right;     // windows, from `costs` columns before the panel to its end
  std::int8_t* left;       // quads of the panel
  std::uint8_t* quads[2];  // right quads that become a window
  std::int32_t* bias;      // per left pixel: what the flipped sign bits add, negated
};

std::size_t WindowBytes(const Plan& plan) { return plan.channels / 4 * kWindow; }

Packed SplitScratch(const Plan& plan, std::uint8_t* scratch) {
  Packed packed{};
  packed.right = scratch;
  scratch += (plan.costs + plan.panel) / kQuad * WindowBytes(plan);
  packed.left = reinterpret_cast<std::int8_t*>(scratch);
  scratch += plan.panel * plan.channels;
  packed.quads[0] = scratch;
  packed.quads[1] = scratch + kQuad * plan.channels;
  packed.bias = reinterpret_cast<std::int32_t*>(scratch + 2 * kQuad * plan.channels);
  return packed;
}

// A column's pixel, or none outside the row: such a pixel counts as zeros.
struct Row {
  const std::int8_t* pixels;
  std::size_t width;
  std::size_t channels;  // distance of pixels
};

const std::int8_t* PixelAt(const Row& row, std::ptrdiff_t column) {
  const bool inside = column >= 0 && column < static_cast<std::ptrdiff_t>(row.width);
  return inside ? row.pixels + static_cast<std::size_t>(column) * row.channels : nullptr;
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

// Packs the quad at `column`, flipping the bits of `flip`; returns per pixel (lane mod 4) the sums
// of its channels in parts that remain to be added.
QXTOOLS_INLINE __m512i PackQuad(const Row& row, std::ptrdiff_t column, std::size_t channels,
                                __m512i flip, std::uint8_t* to) {
  const std::int8_t* pixels[kQuad];
  for (std::size_t j = 0; j < kQuad; ++j) {
    pixels[j] = PixelAt(row, column + static_cast<std::ptrdiff_t>(j));
  }
  __m512i sums = _mm512_setzero_si512();
  for (std::size_t c = 0; c < channels; c += 64) {
    const bool whole = channels - c >= 64;
    const __mmask16 mask = whole ? 0xFFFF : 0x00FF;  // a last block of 32 channels
    __m512i in[4];
    __m512i out[4];
    QXTOOLS_UNROLL
    for (std::size_t j = 0; j < kQuad; ++j) {
      in[j] = pixels[j] == nullptr ? _mm512_setzero_si512()
                                   : _mm512_maskz_loadu_epi32(mask, pixels[j] + c);
      in[j] = _mm512_xor_si512(in[j], flip);
    }
    Transpose(in, out);
    QXTOOLS_UNROLL
    for (std::size_t k = 0; k < 4; ++k) {
      if (whole) {
        _mm512_store_si512(to + c * 4 + k * 64, out[k]);
      } else {
        _mm256_store_si256(reinterpret_cast<__m256i*>(to + c * 4 + k * 32),
                           _mm512_castsi512_si256(out[k]));
      }
      sums = _mm512_dpbusd_epi32(sums, _mm512_set1_epi8(1), out[k]);
    }
  }
  return sums;
}

void PackLeft(const Row& row, std::size_t first, const Plan& plan, const Packed& packed) {
  for (std::size_t q = 0; q < plan.panel / kQuad; ++q) {
    const __m512i parts = PackQuad(
        row, static_cast<std::ptrdiff_t>(first + q * kQuad), plan.channels, _mm512_setzero_si512(),
        reinterpret_cast<std::uint8_t*>(packed.left) + q * kQuad * plan.channels);
    const __m256i halves =
        _mm256_add_epi32(_mm512_castsi512_si256(parts), _mm512_extracti64x4_epi64(parts, 1));
    const __m128i sums =
        _mm_add_epi32(_mm256_castsi256_si128(halves), _mm256_extracti128_si256(halves, 1));
    // Flipping the sign bit of a right value adds 128 to it.
    _mm_store_si128(reinterpret_cast<__m128i*>(packed.bias + q * kQuad),
                    _mm_sub_epi32(_mm_setzero_si128(), _mm_slli_epi32(sums, 7)));
  }
}

QXTOOLS_INLINE __m512i Repeat(const void* record) {
  return _mm512_broadcast_i32x4(_mm_load_si128(static_cast<const __m128i*>(record)));
}

// The windows of a quad: part i of each starts i pixels before it.
void PackWindows(const std::uint8_t* before, const std::uint8_t* quad, std::size_t channels,
                 std::uint8_t* to) {
  const __m512i part = _mm512_setr_epi32(16, 17, 18, 19, 3, 16, 17, 18, 2, 3, 16, 17, 1, 2, 3, 16);
  for (std::size_t at = 0; at < kQuad * channels; at += 16, to += kWindow) {
    _mm512_store_si512(to, _mm512_permutex2var_epi32(Repeat(before + at), part, Repeat(quad + at)));
  }
}

void PackRight(const Row& row, std::size_t first, const Plan& plan, const Packed& packed) {
  const __m512i flip = _mm512_set1_epi8(-128);
  const auto begin = static_cast<std::ptrdiff_t>(first) - static_cast<std::ptrdiff_t>(plan.costs);
  std::uint8_t* before = packed.quads[0];
  std::uint8_t* quad = packed.quads[1];
  PackQuad(row, begin - static_cast<std::ptrdiff_t>(kQuad), plan.channels, flip, before);
  std::uint8_t* to = packed.right;
  for (std::size_t x = 0; x < plan.costs + plan.panel; x += kQuad, to += WindowBytes(plan)) {
    PackQuad(row, begin + static_cast<std::ptrdiff_t>(x), plan.channels, flip, quad);
    PackWindows(before, quad, plan.channels, to);
    std::uint8_t* const next = before;
    before = quad;
    quad = next;
  }
}

using Sums = __m512i[kTileQuads][4];  // [left quad][m]: disparities 4m .. 4m + 3

// The loops over registers are recursions with constant indices: arrays that a loop variable
// indexes would be kept in memory. Quads kQuadIndex and on take window kIndex.
template <std::size_t kIndex, std::size_t kQuadIndex = 0>
QXTOOLS_INLINE void AddProducts(__m512i window, const __m512i (&left)[kTileQuads], Sums& sums) {
  if constexpr (kQuadIndex < kTileQuads) {
    if constexpr (kQuadIndex <= kIndex && kIndex <= kQuadIndex + 3) {
      __m512i& sum = sums[kQuadIndex][kQuadIndex + 3 - kIndex];
      // As _mm512_dpbusd_epi32(), with the sum tied to its register: GCC 12 copies and spills all
      // sums around that intrinsic, which costs a third of the speed.
      __asm__("vpdpbusd %2, %1, %0" : "+v"(sum) : "v"(window), "v"(left[kQuadIndex]));
    }
    AddProducts<kIndex, kQuadIndex + 1>(window, left, sums);
  }
}

template <std::size_t kIndex = 0>
QXTOOLS_INLINE void AddWindows(const std::uint8_t* windows, std::size_t window_bytes,
                               const __m512i (&left)[kTileQuads], Sums& sums) {
  if constexpr (kIndex < kTileQuads + 3) {
    AddProducts<kIndex>(_mm512_load_si512(windows + kIndex * window_bytes), left, sums);
    AddWindows<kIndex + 1>(windows, window_bytes, left, sums);
  }
}

// `windows` starts with that of the first quad and the last m.
QXTOOLS_INLINE void Multiply(const std::int8_t* left, const std::uint8_t* windows,
                             std::size_t quad_bytes, Sums& sums) {
  for (std::size_t at = 0; at < quad_bytes; at += 16) {
    const __m512i l[kTileQuads] = {
        Repeat(left + at), Repeat(left + quad_bytes + at), Repeat(left + 2 * quad_bytes + at),
        Repeat(left + 3 * quad_bytes + at), Repeat(left + 4 * quad_bytes + at)};
    AddWindows(windows + 4 * at, 4 * quad_bytes, l, sums);
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

// The 64 costs of a quad: 16 per pixel, one pixel per 128-bit part.
template <bool kWide>
QXTOOLS_INLINE __m512i Narrow(const __m512i (&sums)[4], __m512 scale) {
  const __m512i costs[4] = {Cost<kWide>(sums[0], scale), Cost<kWide>(sums[1], scale),
                            Cost<kWide>(sums[2], scale), Cost<kWide>(sums[3], scale)};
  const __m512i low = _mm512_set1_epi16(0xFF);
  const __m512i ab = _mm512_and_si512(_mm512_packs_epi32(costs[0], costs[1]), low);
  const __m512i cd = _mm512_and_si512(_mm512_packs_epi32(costs[2], costs[3]), low);
  const __m512i i_m_j = _mm512_packus_epi16(ab, cd);  // byte order: part i, then m, then pixel j
  const __m512i turn =
      _mm512_broadcast_i32x4(_mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15));
  const __m512i i_j_m = _mm512_shuffle_epi8(i_m_j, turn);
  const __m512i j_i_m = _mm512_permutexvar_epi32(
      _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15), i_j_m);
  return _mm512_shuffle_epi8(j_i_m, turn);
}

// Where a tile's costs go.
struct Target {
  std::int8_t* cost;   // of its first pixel and disparity
  std::size_t pitch;   // bytes from pixel to pixel
  std::size_t pixels;  // that exist, at most kTileWidth
  __mmask16 costs;     // that exist
};

QXTOOLS_INLINE void StoreQuad(const Target& to, std::size_t quad, __m512i costs) {
  const __m128i pixel[kQuad] = {_mm512_castsi512_si128(costs), _mm512_extracti32x4_epi32(costs, 1),
                                _mm512_extracti32x4_epi32(costs, 2),
                                _mm512_extracti32x4_epi32(costs, 3)};
  std::int8_t* cost = to.cost + quad * kQuad * to.pitch;
  if (to.costs == 0xFFFF && (quad + 1) * kQuad <= to.pixels) {
    QXTOOLS_UNROLL
    for (std::size_t j = 0; j < kQuad; ++j) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(cost + j * to.pitch), pixel[j]);
    }
    return;
  }
  for (std::size_t j = 0; j < kQuad && quad * kQuad + j < to.pixels; ++j) {
    _mm_mask_storeu_epi8(cost + j * to.pitch, to.costs, pixel[j]);
  }
}

template <std::size_t kQuadIndex = 0>
QXTOOLS_INLINE void StartSums(const std::int32_t* bias, Sums& sums) {
  if constexpr (kQuadIndex < kTileQuads) {
    const __m512i start = Repeat(bias + kQuadIndex * kQuad);
    sums[kQuadIndex][0] = sums[kQuadIndex][1] = sums[kQuadIndex][2] = sums[kQuadIndex][3] = start;
    StartSums<kQuadIndex + 1>(bias, sums);
  }
}

template <bool kWide, std::size_t kQuadIndex = 0>
QXTOOLS_INLINE void StoreSums(const Sums& sums, __m512 scale, const Target& to) {
  if constexpr (kQuadIndex < kTileQuads) {
    StoreQuad(to, kQuadIndex, Narrow<kWide>(sums[kQuadIndex], scale));
    StoreSums<kWide, kQuadIndex + 1>(sums, scale, to);
  }
}

template <bool kWide>
void Tile(const std::int8_t* left, const std::uint8_t* right, const std::int32_t* bias,
          std::size_t quad_bytes, float scale, const Target& to) {
  Sums sums;
  StartSums(bias, sums);
  Multiply(left, right, quad_bytes, sums);
  StoreSums<kWide>(sums, _mm512_set1_ps(scale), to);
}

void StoreZeros(const Target& to) {
  for (std::size_t x = 0; x < to.pixels; ++x) {
    _mm_mask_storeu_epi8(to.cost + x * to.pitch, to.costs, _mm_setzero_si128());
  }
}

// All tiles of a panel whose first column is `first`; `cost` is that of the row's first pixel.
template <bool kWide>
void Panel(const CostVolumeJob& job, const Plan& plan, const Packed& packed, std::size_t first,
           std::int8_t* cost) {
  const std::size_t quad_bytes = kQuad * plan.channels;
  // Disparities in the outer loop: neighbouring tiles then share windows in the first-level cache.
  for (std::size_t d = 0; d < job.disparities; d += kTileCosts) {
    for (std::size_t x = 0; x < plan.panel && first + x < job.width; x += kTileWidth) {
      const std::size_t costs = Smaller(job.disparities - d, kTileCosts);
      const Target to{cost + (first + x) * job.disparities + d, job.disparities,
                      Smaller(job.width - first - x, kTileWidth),
                      static_cast<__mmask16>((1U << costs) - 1)};
      // Every pixel of such a tile lies left of column d.
      if (d >= plan.costs || d >= first + x + kTileWidth) {
        StoreZeros(to);
        continue;
      }
      const std::size_t window = (plan.costs + x - d) / kQuad - 3;
      Tile<kWide>(packed.left + x * plan.channels, packed.right + window * WindowBytes(plan),
                  packed.bias + x, quad_bytes, job.scale, to);
    }
  }
}

// Whether some sum can make a cost that 16 bits do not hold; true for a scale that is no number.
bool NeedsWide(const Plan& plan, float scale) {
  const float magnitude = scale < 0 ? -scale : scale;
  return !(static_cast<float>(plan.channels) * 16384.0F * magnitude < 32000.0F);
}

}  // namespace

std::size_t CostVolumeScratchAvx512Vnni(const CostVolumeJob& job) {
  const Plan plan = PlanOf(job);
  return (plan.costs + plan.panel) / kQuad * WindowBytes(plan) +
         (plan.panel + 2 * kQuad) * plan.channels + plan.panel * sizeof(std::int32_t);
}

void CostVolumeRowsAvx512Vnni(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                              std::uint8_t* scratch) {
  const Plan plan = PlanOf(job);
  const Packed packed = SplitScratch(plan, scratch);
  const auto panel = NeedsWide(plan, job.scale) ? Panel<true> : Panel<false>;
  for (std::size_t y = first_row; y < end_row; ++y) {
    const std::size_t row = y * job.width;
    for (std::size_t first = 0; first < job.width; first += plan.panel) {
      PackLeft({job.left + row * job.channels, job.width, job.channels}, first, plan, packed);
      PackRight({job.right + row * job.channels, job.width, job.channels}, first, plan, packed);
      panel(job, plan, packed, first, job.cost + row * job.disparities);
    }
  }
}

}  // namespace image
}  // namespace utils
}  // namespace qx
