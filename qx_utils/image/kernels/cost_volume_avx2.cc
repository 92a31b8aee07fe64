// Cost volume with AVX2: register tiles of 3 left pixels x 4 windows of the right row.
//
// Values are widened to 16 bits, since the instruction for 8 bits saturates its sums of two
// products. The right row is packed with its columns reversed: four channels (a grain) of all
// columns side by side. 32 bytes from any column on are a window: the right factors of a left pixel
// for four neighbouring disparities, two partial sums for each. What is disparity d for a left
// pixel is d + 4 for the pixel four columns further, so these share windows: 6 windows and 3 left
// grains feed 12 multiplications, and nothing outside the band is computed.
#include <immintrin.h>

#include "qx_utils/image/kernels/cost_volume.h"

#define QXTOOLS_INLINE __attribute__((always_inline)) inline

namespace qx {
namespace utils {
namespace image {
namespace {

constexpr std::size_t kWindow = 32;                 // bytes
constexpr std::size_t kGrain = 4;                   // channels
constexpr std::size_t kColumns = 4;                 // of a window
constexpr std::size_t kPixels = 3;                  // left pixels of a tile, kColumns apart
constexpr std::size_t kWindows = 4;                 // of each of them
constexpr std::size_t kBand = kWindows * kColumns;  // disparities of a tile
constexpr std::size_t kSpan = kPixels * kColumns;   // columns that tiles side by side share
constexpr std::size_t kPackedBudget = std::size_t{192} * 1024;  // bytes of a panel's windows

std::size_t RoundUp(std::size_t value, std::size_t unit) {
  return (value + unit - 1) / unit * unit;
}
std::size_t Smaller(std::size_t a, std::size_t b) { return a < b ? a : b; }

// How a job is cut: columns are worked on in panels so that scratch stays bounded.
struct Plan {
  std::size_t channels;  // in whole blocks
  std::size_t cover;     // disparities that tiles compute; no pixel has more
  std::size_t panel;     // columns, in whole spans
  std::size_t pitch;     // bytes from grain to grain; an odd number of cache lines
  bool wide;             // see NeedsWide()
};

// Whether some sum can make a cost that 14 bits do not hold; true for a scale that is no number.
bool NeedsWide(std::size_t channels, float scale) {
  const float magnitude = scale < 0 ? -scale : scale;
  return !(static_cast<float>(channels) * 16384.0F * magnitude < 16000.0F);
}

Plan PlanOf(const CostVolumeJob& job) {
  Plan plan{};
  plan.channels = job.channels / kCostVolumeBlock * kCostVolumeBlock;
  const std::size_t costs = RoundUp(Smaller(job.disparities, job.width), kBand);
  plan.cover = job.disparities < kBand ? kBand : Smaller(costs, job.disparities);
  const std::size_t lead = RoundUp(plan.cover, kColumns);
  const std::size_t fitting = kPackedBudget / (2 * plan.channels);
  const std::size_t panel = fitting > 2 * lead ? fitting - lead : lead;
  plan.panel = RoundUp(Smaller(job.width, panel), kSpan);
  const std::size_t lines = RoundUp((plan.panel + lead) * kGrain * 2, kCostVolumeAlignment);
  plan.pitch = (lines / kCostVolumeAlignment | 1) * kCostVolumeAlignment;
  plan.wide = NeedsWide(plan.channels, job.scale);
  return plan;
}

struct Row {
  const std::int8_t* pixels;
  std::size_t width;
  std::size_t channels;  // distance of pixels
};

// Behind the row its last pixel is repeated: nothing made of it is kept.
const std::int8_t* PixelAt(const Row& row, std::size_t column) {
  return row.pixels + Smaller(column, row.width - 1) * row.channels;
}

QXTOOLS_INLINE __m256i Widen(const std::int8_t* from) {
  return _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
}

QXTOOLS_INLINE void Store(void* to, __m256i value) {
  _mm256_storeu_si256(static_cast<__m256i*>(to), value);
}

void PackLeft(const Row& row, std::size_t column, std::size_t channels, std::int16_t* to) {
  for (std::size_t t = 0; t < kSpan; ++t) {
    const std::int8_t* pixel = PixelAt(row, column + t);
    for (std::size_t c = 0; c < channels; c += 16, to += 16) Store(to, Widen(pixel + c));
  }
}

// Packs a window: the pixel at `column` first, then those left of it.
void PackWindow(const Row& row, std::size_t column, const Plan& plan, std::uint8_t* to) {
  const std::int8_t* const pixel[kColumns] = {PixelAt(row, column), PixelAt(row, column - 1),
                                              PixelAt(row, column - 2), PixelAt(row, column - 3)};
  for (std::size_t c = 0; c < plan.channels; c += 16, to += 4 * plan.pitch) {
    const __m256i p0 = Widen(pixel[0] + c);
    const __m256i p1 = Widen(pixel[1] + c);
    const __m256i p2 = Widen(pixel[2] + c);
    const __m256i p3 = Widen(pixel[3] + c);
    const __m256i even01 = _mm256_unpacklo_epi64(p0, p1);
    const __m256i odd01 = _mm256_unpackhi_epi64(p0, p1);
    const __m256i even23 = _mm256_unpacklo_epi64(p2, p3);
    const __m256i odd23 = _mm256_unpackhi_epi64(p2, p3);
    Store(to, _mm256_permute2x128_si256(even01, even23, 0x20));
    Store(to + plan.pitch, _mm256_permute2x128_si256(odd01, odd23, 0x20));
    Store(to + 2 * plan.pitch, _mm256_permute2x128_si256(even01, even23, 0x31));
    Store(to + 3 * plan.pitch, _mm256_permute2x128_si256(odd01, odd23, 0x31));
  }
}

// Packs `count` columns, whole windows, from `column` on; `to` is the place of the last of them.
void PackColumns(const Row& row, std::size_t column, std::size_t count, const Plan& plan,
                 std::uint8_t* to) {
  for (std::size_t t = 0; t < count; t += kColumns, to += kWindow) {
    PackWindow(row, column + count - 1 - t, plan, to);
  }
}

// Those of a tile: [left pixel][window].
using Sums = __m256i[kPixels][kWindows];

// sum += term, with the sum tied to its register: GCC 12 spills sums of the plain intrinsic.
QXTOOLS_INLINE void Add(__m256i term, __m256i& sum) {
  __asm__("vpaddd %1, %0, %0" : "+x"(sum) : "x"(term));
}

// Keeps the compiler from loading a value anew for each of its uses.
QXTOOLS_INLINE __m256i InRegister(__m256i value) {
  __asm__("" : "+x"(value));
  return value;
}

// The left grains of a tile's pixels, repeated, and where they come from.
struct Left {
  const std::int16_t* pixel[kPixels];
  __m256i grain[kPixels];
};

// The loops over registers are recursions with constant indices: arrays that a loop variable
// indexes would be kept in memory. Window 0 is the first of the tile's last pixel. Pixels count
// down and load their grain at their first window, so 16 registers suffice: the first one of a
// window needs its grain no more, or the last one has it not yet.
template <std::size_t kNumber, std::size_t kCount = kPixels>
QXTOOLS_INLINE void AddProducts(__m256i window, std::size_t channel, Left& left, Sums& sums) {
  if constexpr (kCount > 0) {
    constexpr std::size_t kPixel = kCount - 1;
    constexpr std::size_t kReach = kNumber + kPixel;  // kPixels - 1 for a pixel's first window
    if constexpr (kReach == kPixels - 1) {
      long long grain;
      __builtin_memcpy(&grain, left.pixel[kPixel] + channel, sizeof(grain));
      left.grain[kPixel] = InRegister(_mm256_set1_epi64x(grain));
    }
    if constexpr (kReach >= kPixels - 1 && kReach < kPixels - 1 + kWindows) {
      Add(_mm256_madd_epi16(left.grain[kPixel], window), sums[kPixel][kReach - (kPixels - 1)]);
    }
    AddProducts<kNumber, kCount - 1>(window, channel, left, sums);
  }
}

template <std::size_t kEnd, std::size_t kNumber = 0>
QXTOOLS_INLINE void AddWindows(const std::uint8_t* right, std::size_t channel, Left& left,
                               Sums& sums) {
  if constexpr (kNumber < kEnd) {
    const auto* window = reinterpret_cast<const __m256i*>(right + kNumber * kWindow);
    AddProducts<kNumber>(InRegister(_mm256_loadu_si256(window)), channel, left, sums);
    AddWindows<kEnd, kNumber + 1>(right, channel, left, sums);
  }
}

// A tile: where its parts are.
struct TilePlace {
  const std::int16_t* left;   // first pixel
  const std::uint8_t* right;  // first window of the last pixel
  std::int8_t* cost;          // first cost of the first pixel
  std::size_t pixels;         // 1 .. kPixels, to be stored
};

template <std::size_t kPixel = 0>
QXTOOLS_INLINE void Clear(Sums& sums) {
  if constexpr (kPixel < kPixels) {
    sums[kPixel][0] = sums[kPixel][1] = sums[kPixel][2] = sums[kPixel][3] = _mm256_setzero_si256();
    Clear<kPixel + 1>(sums);
  }
}

template <std::size_t kSkipped>
QXTOOLS_INLINE void Multiply(const Plan& plan, const TilePlace& place, Sums& sums) {
  Clear(sums);
  const std::uint8_t* right = place.right;
  const std::size_t channels = plan.channels;
  const std::size_t pitch = plan.pitch;
  const std::size_t step = kColumns * channels;
  Left left{{place.left, place.left + step, place.left + 2 * step}, {}};
  for (std::size_t c = 0; c < channels; c += kGrain, right += pitch) {
    AddWindows<kWindows + kPixels - 1 - kSkipped>(right, c, left, sums);
  }
}

// Scaled and leaky: the larger of the two is the leaky one below zero and the plain one above.
QXTOOLS_INLINE __m256 Leaky(__m256i sums, __m256 scale) {
  const __m256 value = _mm256_mul_ps(_mm256_cvtepi32_ps(sums), scale);
  return _mm256_max_ps(value, _mm256_mul_ps(value, _mm256_set1_ps(kCostVolumeLeak)));
}

// Words of costs: those of `low` in the lower half of each 128-bit part. Twice a cost is rounded
// down, and half of that up.
QXTOOLS_INLINE __m256i Words(__m256i low, __m256i high, float scale) {
  const __m256 twice = _mm256_set1_ps(2.0F * scale);
  const __m256i a = _mm256_cvttps_epi32(_mm256_floor_ps(Leaky(low, twice)));
  const __m256i b = _mm256_cvttps_epi32(_mm256_floor_ps(Leaky(high, twice)));
  return _mm256_srai_epi16(_mm256_add_epi16(_mm256_packs_epi32(a, b), _mm256_set1_epi16(1)), 1);
}

// The integer whose low 8 bits are the cost, for all costs.
__m256i WideCost(__m256i sums, __m256 scale) {
  const __m256 leaky = Leaky(sums, scale);
  // The distance to the integer below is exact, or on the right side of a half (0 > q > -0.5).
  const __m256 below = _mm256_floor_ps(leaky);
  const __m256 up = _mm256_cmp_ps(_mm256_sub_ps(leaky, below), _mm256_set1_ps(0.5F), _CMP_GE_OQ);
  const __m256i rounded = _mm256_sub_epi32(_mm256_cvttps_epi32(below), _mm256_castps_si256(up));
  // What does not fit 32 bits became 0x80000000, whose low byte is right for all but these.
  const __m256 high = _mm256_cmp_ps(leaky, _mm256_set1_ps(2147483648.0F), _CMP_GE_OQ);
  return _mm256_and_si256(_mm256_or_si256(rounded, _mm256_castps_si256(high)),
                          _mm256_set1_epi32(0xFF));
}

// The low bytes of a pixel's 16 costs as words: 0 1 4 5 8 9 12 13 and the rest in the other half.
QXTOOLS_INLINE __m256i PixelWords(const __m256i (&sums)[kWindows], float scale, bool wide) {
  const __m256i low = _mm256_hadd_epi32(sums[0], sums[1]);
  const __m256i high = _mm256_hadd_epi32(sums[2], sums[3]);
  if (wide) {
    const __m256 scales = _mm256_set1_ps(scale);
    return _mm256_packs_epi32(WideCost(low, scales), WideCost(high, scales));
  }
  return _mm256_and_si256(Words(low, high, scale), _mm256_set1_epi16(0xFF));
}

QXTOOLS_INLINE void StorePixel(__m128i bytes, std::size_t count, std::int8_t* cost) {
  if (count >= kBand) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(cost), bytes);
  } else {
    std::int8_t all[kBand];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(all), bytes);
    __builtin_memcpy(cost, all, count);
  }
}

template <std::size_t kSkipped>
void ComputeTile(const CostVolumeJob& job, const Plan& plan, const TilePlace& place) {
  Sums sums;
  Multiply<kSkipped>(plan, place, sums);
  const __m256i words[kPixels] = {PixelWords(sums[0], job.scale, plan.wide),
                                  PixelWords(sums[1], job.scale, plan.wide),
                                  PixelWords(sums[2], job.scale, plan.wide)};
  const __m256i first = _mm256_packus_epi16(words[0], words[1]);
  const __m256i last = _mm256_packus_epi16(words[2], words[2]);
  const __m128i first_low = _mm256_castsi256_si128(first);
  const __m128i first_high = _mm256_extracti128_si256(first, 1);
  const std::size_t step = kColumns * job.disparities;
  StorePixel(_mm_unpacklo_epi16(first_low, first_high), job.disparities, place.cost);
  if (place.pixels < 2) return;
  StorePixel(_mm_unpackhi_epi16(first_low, first_high), job.disparities, place.cost + step);
  if (place.pixels < 3) return;
  StorePixel(_mm_unpacklo_epi16(_mm256_castsi256_si128(last), _mm256_extracti128_si256(last, 1)),
             job.disparities, place.cost + 2 * step);
}

// Columns of a row whose windows are in scratch together.
struct Panel {
  std::size_t row;       // number of the row's first pixel in the maps
  std::size_t first;     // column
  std::size_t end;       // column behind the last one
  bool keeps_lead;       // what it needs before its first column is there from the row before
  std::uint8_t* packed;  // place of column first + plan.panel - 1
  std::int16_t* left;    // a span's pixels
};

std::uint8_t* PackedAt(const Plan& plan, const Panel& panel, std::size_t column) {
  return panel.packed + (panel.first + plan.panel - 1 - column) * kGrain * 2;
}

// Packs what the panel needs before its first column. What lies left of the row counts as zeros,
// and so do its costs.
void PackLead(const Row& row, const Plan& plan, const Panel& panel) {
  std::uint8_t* to = panel.packed + plan.panel * kGrain * 2;
  const std::size_t lead = RoundUp(plan.cover, kColumns);
  const std::size_t inside = Smaller(panel.first, lead);
  PackColumns(row, panel.first - inside, inside, plan, to);
  to += inside * kGrain * 2;
  for (std::size_t c = 0; c < plan.channels; c += kGrain, to += plan.pitch) {
    __builtin_memset(to, 0, (lead - inside) * kGrain * 2);
  }
}

// The data may lie behind the end of all: the request is then dropped.
QXTOOLS_INLINE void Prefetch(const std::int8_t* from, std::size_t offset, std::size_t bytes) {
  std::uintptr_t at = reinterpret_cast<std::uintptr_t>(from) + offset;
  for (const std::uintptr_t end = at + bytes; at < end; at += kCostVolumeAlignment) {
    _mm_prefetch(reinterpret_cast<const char*>(at), _MM_HINT_T0);
  }
}

// The span's tiles of disparities d and on. Each asks for a share of the next span's data, the
// first for number `share`, while it hides the wait.
void ComputeBand(const CostVolumeJob& job, const Plan& plan, const Panel& panel, std::size_t start,
                 std::size_t d, std::size_t share, std::size_t shares) {
  const auto tile = start <= d ? ComputeTile<kWindows - 1> : ComputeTile<0>;
  const std::size_t next = panel.row + start + kSpan;  // pixel
  const std::size_t pixel_bytes = kSpan * job.channels / shares;
  const std::size_t cost_bytes = kSpan * job.disparities / shares;
  for (std::size_t t = 0; t < kColumns && start + t < panel.end; ++t, ++share) {
    Prefetch(job.left, next * job.channels + share * pixel_bytes, pixel_bytes);
    Prefetch(job.right, next * job.channels + share * pixel_bytes, pixel_bytes);
    Prefetch(job.cost, next * job.disparities + share * cost_bytes, cost_bytes);
    const std::size_t column = start + t;
    std::size_t pixels = 1;
    while (pixels < kPixels && column + pixels * kColumns < panel.end) ++pixels;
    const std::uint8_t* first = PackedAt(plan, panel, column) + d * kGrain * 2;
    tile(job, plan,
         {panel.left + t * plan.channels, first - (kPixels - 1) * kWindow,
          job.cost + (panel.row + column) * job.disparities + d, pixels});
  }
}

void ComputeSpan(const CostVolumeJob& job, const Plan& plan, const Panel& panel,
                 std::size_t start) {
  // Pixels of the span have no disparities from here on.
  const std::size_t reach = Smaller(plan.cover, RoundUp(start + kSpan, kBand));
  const std::size_t bands = RoundUp(reach, kBand) / kBand;
  for (std::size_t b = 0; b < bands; ++b) {
    // A band that would end behind the last cost is moved back to overlap the one before.
    const std::size_t d = Smaller(b * kBand, plan.cover - kBand);
    ComputeBand(job, plan, panel, start, d, b * kColumns, bands * kColumns);
  }
  if (reach >= job.disparities) return;
  const std::size_t end = Smaller(start + kSpan, panel.end);
  for (std::size_t column = start; column < end; ++column) {
    std::int8_t* cost = job.cost + (panel.row + column) * job.disparities;
    __builtin_memset(cost + reach, 0, job.disparities - reach);
  }
}

void ComputePanel(const CostVolumeJob& job, const Plan& plan, const Panel& panel) {
  const Row left{job.left + panel.row * job.channels, job.width, job.channels};
  const Row right{job.right + panel.row * job.channels, job.width, job.channels};
  if (!panel.keeps_lead) PackLead(right, plan, panel);
  for (std::size_t x = panel.first; x < panel.end; x += kSpan) {
    const std::size_t count = Smaller(kSpan, RoundUp(panel.end - x, kColumns));
    PackColumns(right, x, count, plan, PackedAt(plan, panel, x + count - 1));
    // A span that would end behind the panel is moved back as well.
    const bool whole = panel.end - panel.first >= kSpan;
    const std::size_t start = whole ? Smaller(x, panel.end - kSpan) : panel.first;
    PackLeft(left, start, plan.channels, panel.left);
    ComputeSpan(job, plan, panel, start);
  }
}

std::size_t RightBytes(const Plan& plan) { return plan.channels / kGrain * plan.pitch; }

}  // namespace

std::size_t CostVolumeScratchAvx2(const CostVolumeJob& job) {
  const Plan plan = PlanOf(job);
  return RightBytes(plan) + kSpan * plan.channels * sizeof(std::int16_t);
}

void CostVolumeRowsAvx2(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                        std::uint8_t* scratch) {
  const Plan plan = PlanOf(job);
  auto* left = reinterpret_cast<std::int16_t*>(scratch + RightBytes(plan));
  for (std::size_t y = first_row; y < end_row; ++y) {
    const bool keeps_lead = y > first_row && plan.panel >= job.width;
    for (std::size_t first = 0; first < job.width; first += plan.panel) {
      const std::size_t end = Smaller(first + plan.panel, job.width);
      ComputePanel(job, plan, {y * job.width, first, end, keeps_lead, scratch, left});
    }
  }
}

}  // namespace image
}  // namespace utils
}  // namespace qx
