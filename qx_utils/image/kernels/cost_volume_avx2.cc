// Cost volume with AVX2: register tiles of 6 left pixels x 16 right pixels.
//
// Values are widened to 16 bits, since the instruction for 8 bits saturates its sums of two
// products. The right row is packed once: for every pair of channels, all columns from right to
// left, so that a vector of neighbouring columns has rising disparities. A left pixel's pair is
// broadcast against it. The tile is a rectangle; its corners outside the band 0 <= d < D end up
// in the margins of the lines that the costs are collected in.
#include <immintrin.h>

#include "qx_utils/image/kernels/cost_volume.h"

#define QXTOOLS_INLINE __attribute__((always_inline)) inline

namespace qx {
namespace utils {
namespace image {
namespace {

constexpr std::size_t kTileWidth = 6;   // left pixels
constexpr std::size_t kTileRight = 16;  // right pixels, in two vectors
constexpr std::size_t kMargin = 32;     // bytes before and after a line's costs
constexpr std::size_t kPackedBudget = std::size_t{256} * 1024;  // bytes of packed columns
constexpr std::size_t kVector = 32;                             // bytes

std::size_t RoundUp(std::size_t value, std::size_t unit) {
  return (value + unit - 1) / unit * unit;
}
std::size_t Smaller(std::size_t a, std::size_t b) { return a < b ? a : b; }

// How a job is cut: columns are worked on in panels so that scratch stays bounded.
struct Plan {
  std::size_t channels;  // in whole blocks
  std::size_t costs;     // disparities that some pixel has
  std::size_t panel;     // columns, in whole tiles
  std::size_t columns;   // packed right columns; an odd number of cache lines per channel pair
  std::size_t line;      // bytes of the collected costs of a pixel
};

Plan PlanOf(const CostVolumeJob& job) {
  Plan plan{};
  plan.channels = job.channels / kCostVolumeBlock * kCostVolumeBlock;
  plan.costs = Smaller(job.disparities, job.width);
  const std::size_t columns = kPackedBudget / (4 * plan.channels);  // of both maps, 16 bits each
  const std::size_t fitting =
      columns > plan.costs ? (columns - plan.costs) / kTileWidth * kTileWidth : 0;
  plan.panel = Smaller(RoundUp(job.width, kTileWidth), fitting == 0 ? 10 * kTileWidth : fitting);
  plan.columns = RoundUp(plan.panel + plan.costs + kTileRight, 16) | 16;
  plan.line = RoundUp(plan.costs, kVector) + 2 * kMargin;
  return plan;
}

// Scratch of a thread.
struct Packed {
  std::int16_t* left;   // the panel's pixels, channels adjacent
  std::int32_t* right;  // [channel pair][column], the panel's last column first
  std::int8_t* lines;   // collected costs of a tile's pixels
};

Packed SplitScratch(const Plan& plan, std::uint8_t* scratch) {
  Packed packed{};
  packed.right = reinterpret_cast<std::int32_t*>(scratch);
  scratch += plan.columns * plan.channels * 2;
  packed.left = reinterpret_cast<std::int16_t*>(scratch);
  scratch += plan.panel * plan.channels * 2;
  packed.lines = reinterpret_cast<std::int8_t*>(scratch);
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

void PackLeft(const Row& row, std::size_t first, const Plan& plan, std::int16_t* to) {
  for (std::size_t x = 0; x < plan.panel; ++x, to += plan.channels) {
    const std::int8_t* pixel = PixelAt(row, static_cast<std::ptrdiff_t>(first + x));
    for (std::size_t c = 0; c < plan.channels; c += 16) {
      const __m256i wide =
          pixel == nullptr
              ? _mm256_setzero_si256()
              : _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pixel + c)));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(to + c), wide);
    }
  }
}

QXTOOLS_INLINE __m128i Widen(const std::int8_t* pixel, std::size_t channel) {
  if (pixel == nullptr) return _mm_setzero_si128();
  return _mm_cvtepi8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(pixel + channel)));
}

// Packs four columns: `pixels` in the order of the packed columns, `to` the first channel pair's.
void PackColumns(const std::int8_t* const pixels[4], const Plan& plan, std::int32_t* to) {
  for (std::size_t c = 0; c < plan.channels; c += 8, to += 4 * plan.columns) {
    const __m128i a = Widen(pixels[0], c);
    const __m128i b = Widen(pixels[1], c);
    const __m128i x = Widen(pixels[2], c);
    const __m128i y = Widen(pixels[3], c);
    const __m128i ab_low = _mm_unpacklo_epi32(a, b);
    const __m128i ab_high = _mm_unpackhi_epi32(a, b);
    const __m128i xy_low = _mm_unpacklo_epi32(x, y);
    const __m128i xy_high = _mm_unpackhi_epi32(x, y);
    const __m128i pairs[4] = {
        _mm_unpacklo_epi64(ab_low, xy_low), _mm_unpackhi_epi64(ab_low, xy_low),
        _mm_unpacklo_epi64(ab_high, xy_high), _mm_unpackhi_epi64(ab_high, xy_high)};
    for (std::size_t k = 0; k < 4; ++k) {
      _mm_store_si128(reinterpret_cast<__m128i*>(to + k * plan.columns), pairs[k]);
    }
  }
}

void PackRight(const Row& row, std::size_t first, const Plan& plan, std::int32_t* to) {
  const auto last = static_cast<std::ptrdiff_t>(first + plan.panel - 1);
  for (std::size_t at = 0; at < plan.columns; at += 4) {
    const std::ptrdiff_t column = last - static_cast<std::ptrdiff_t>(at);
    const std::int8_t* const pixels[4] = {PixelAt(row, column), PixelAt(row, column - 1),
                                          PixelAt(row, column - 2), PixelAt(row, column - 3)};
    PackColumns(pixels, plan, to + at);
  }
}

// [left pixel][vector of eight right pixels]
template <std::size_t kVectors>
using Sums = __m256i[kTileWidth][kVectors];

// sum += term, with the sum tied to its register: GCC 12 spills sums of the plain intrinsic.
QXTOOLS_INLINE void Add(__m256i term, __m256i& sum) {
  __asm__("vpaddd %1, %0, %0" : "+x"(sum) : "x"(term));
}

// The loop over left pixels is a recursion with constant indices: an array that a loop variable
// indexes would be kept in memory.
template <std::size_t kVectors, std::size_t kPixel = 0>
QXTOOLS_INLINE void AddProducts(const std::int16_t* left, std::size_t channels, __m256i right0,
                                __m256i right1, Sums<kVectors>& sums) {
  if constexpr (kPixel < kTileWidth) {
    std::int32_t pair;
    __builtin_memcpy(&pair, left + kPixel * channels, sizeof(pair));
    const __m256i pairs = _mm256_set1_epi32(pair);
    Add(_mm256_madd_epi16(pairs, right0), sums[kPixel][0]);
    if constexpr (kVectors == 2) Add(_mm256_madd_epi16(pairs, right1), sums[kPixel][1]);
    AddProducts<kVectors, kPixel + 1>(left, channels, right0, right1, sums);
  }
}

template <std::size_t kVectors, std::size_t kPixel = 0>
QXTOOLS_INLINE void Clear(Sums<kVectors>& sums) {
  if constexpr (kPixel < kTileWidth) {
    sums[kPixel][0] = _mm256_setzero_si256();
    sums[kPixel][kVectors - 1] = _mm256_setzero_si256();
    Clear<kVectors, kPixel + 1>(sums);
  }
}

// The integer whose low 8 bits are the cost.
QXTOOLS_INLINE __m256i Cost(__m256i sum, __m256 scale) {
  const __m256 value = _mm256_mul_ps(_mm256_cvtepi32_ps(sum), scale);
  // The larger of the two is the leaky one below zero and the plain one above.
  const __m256 leaky = _mm256_max_ps(value, _mm256_mul_ps(value, _mm256_set1_ps(kCostVolumeLeak)));
  // The distance to the integer below is exact, or on the right side of a half (0 > q > -0.5).
  const __m256 below = _mm256_floor_ps(leaky);
  const __m256 up = _mm256_cmp_ps(_mm256_sub_ps(leaky, below), _mm256_set1_ps(0.5F), _CMP_GE_OQ);
  const __m256i rounded = _mm256_sub_epi32(_mm256_cvttps_epi32(below), _mm256_castps_si256(up));
  // What does not fit 32 bits became 0x80000000, whose low byte is right for all but these.
  const __m256 high = _mm256_cmp_ps(leaky, _mm256_set1_ps(2147483648.0F), _CMP_GE_OQ);
  return _mm256_and_si256(_mm256_or_si256(rounded, _mm256_castps_si256(high)),
                          _mm256_set1_epi32(0xFF));
}

// Writes the costs of pixel kPixel and on; of the tile's last pixel, lane 0 has disparity 0.
template <std::size_t kVectors, std::size_t kPixel = 0>
QXTOOLS_INLINE void StoreCosts(const Sums<kVectors>& sums, __m256 scale, std::int8_t* line,
                               std::size_t line_bytes) {
  if constexpr (kPixel < kTileWidth) {
    const __m256i a = Cost(sums[kPixel][0], scale);
    const __m256i b = kVectors == 2 ? Cost(sums[kPixel][kVectors - 1], scale) : a;
    const __m256i words = _mm256_permute4x64_epi64(_mm256_packs_epi32(a, b), 0xD8);
    const __m128i bytes =
        _mm_packus_epi16(_mm256_castsi256_si128(words), _mm256_extracti128_si256(words, 1));
    auto* to = reinterpret_cast<__m128i*>(line + kPixel + 1 - kTileWidth);
    if constexpr (kVectors == 2) {
      _mm_storeu_si128(to, bytes);
    } else {
      _mm_storel_epi64(to, bytes);
    }
    StoreCosts<kVectors, kPixel + 1>(sums, scale, line + line_bytes, line_bytes);
  }
}

template <std::size_t kVectors>
void Tile(const std::int16_t* left, const std::int32_t* right, const Plan& plan, float scale,
          std::int8_t* line) {
  Sums<kVectors> sums;
  Clear<kVectors>(sums);
  for (std::size_t c = 0; c < plan.channels; c += 2, right += plan.columns) {
    const auto* columns = reinterpret_cast<const __m256i*>(right);
    AddProducts<kVectors>(left + c, plan.channels, _mm256_loadu_si256(columns),
                          _mm256_loadu_si256(columns + (kVectors - 1)), sums);
  }
  StoreCosts<kVectors>(sums, _mm256_set1_ps(scale), line, plan.line);
}

void CopyCosts(const CostVolumeJob& job, const Plan& plan, const Packed& packed, std::size_t x,
               std::int8_t* cost) {
  for (std::size_t t = 0; t < kTileWidth && x + t < job.width; ++t) {
    const std::size_t costs = Smaller(plan.costs, x + t + 1);
    std::int8_t* to = cost + (x + t) * job.disparities;
    __builtin_memcpy(to, packed.lines + t * plan.line + kMargin, costs);
    __builtin_memset(to + costs, 0, job.disparities - costs);
  }
}

// All tiles of a panel whose first column is `first`; `cost` is that of the row's first pixel.
void Panel(const CostVolumeJob& job, const Plan& plan, const Packed& packed, std::size_t first,
           std::int8_t* cost) {
  for (std::size_t x = 0; x < plan.panel && first + x < job.width; x += kTileWidth) {
    const std::int16_t* left = packed.left + x * plan.channels;
    const std::int32_t* right = packed.right + (plan.panel - kTileWidth - x);
    // Lanes that hold a cost of the tile; pixels at column x have no disparities above x.
    const std::size_t lanes = Smaller(plan.costs, first + x + kTileWidth) + kTileWidth - 1;
    for (std::size_t lane = 0; lane < lanes; lane += kTileRight) {
      const auto tile = lanes - lane > kTileRight / 2 ? Tile<2> : Tile<1>;
      tile(left, right + lane, plan, job.scale, packed.lines + kMargin + lane);
    }
    CopyCosts(job, plan, packed, first + x, cost);
  }
}

}  // namespace

std::size_t CostVolumeScratchAvx2(const CostVolumeJob& job) {
  const Plan plan = PlanOf(job);
  return (plan.columns + plan.panel) * plan.channels * 2 + kTileWidth * plan.line;
}

void CostVolumeRowsAvx2(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                        std::uint8_t* scratch) {
  const Plan plan = PlanOf(job);
  const Packed packed = SplitScratch(plan, scratch);
  for (std::size_t y = first_row; y < end_row; ++y) {
    const std::size_t row = y * job.width;
    const Row left{job.left + row * job.channels, job.width, job.channels};
    const Row right{job.right + row * job.channels, job.width, job.channels};
    for (std::size_t first = 0; first < job.width; first += plan.panel) {
      PackLeft(left, first, plan, packed.left);
      PackRight(right, first, plan, packed.right);
      Panel(job, plan, packed, first, job.cost + row * job.disparities);
    }
  }
}

}  // namespace image
}  // namespace utils
}  // namespace qx
