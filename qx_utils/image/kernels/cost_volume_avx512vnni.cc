// Cost volume with AVX-512 VNNI: packs the right row and moves tiles along the band.
#include <immintrin.h>

#include "qx_utils/image/kernels/cost_volume.h"
#include "qx_utils/image/kernels/cost_volume_avx512vnni.h"

namespace qx {
namespace utils {
namespace image {
namespace {

using avx512vnni::kLong;
using avx512vnni::kMostWindows;
using avx512vnni::kPixels;
using avx512vnni::kShort;
using avx512vnni::kWindow;
using avx512vnni::Tile;
using avx512vnni::TileJob;

constexpr std::size_t kPackedBudget = std::size_t{192} * 1024;  // bytes of a panel's windows

std::size_t RoundUp(std::size_t value, std::size_t unit) {
  return (value + unit - 1) / unit * unit;
}
std::size_t Smaller(std::size_t a, std::size_t b) { return a < b ? a : b; }
std::size_t Larger(std::size_t a, std::size_t b) { return a < b ? b : a; }

// How a job is cut. Columns are worked on in panels, so that scratch stays bounded, and these in
// spans of kPixels windows: tiles with their first pixels in the span's first window.
struct Plan {
  std::size_t channels;  // in whole blocks
  std::size_t grain;     // channels
  std::size_t columns;   // of a window
  std::size_t windows;   // of each pixel of a tile
  std::size_t band;      // disparities of a tile
  std::size_t cover;     // disparities that tiles compute; no pixel has more
  std::size_t lead;      // right columns that a panel needs before its first
  std::size_t span;      // columns
  std::size_t panel;     // columns, in whole spans
  std::size_t pitch;     // bytes from grain to grain; an odd number of cache lines
};

// Chooses the tiles for a grain: as few as possible for each pixel, all equally wide, and none
// wider than a pixel's costs, unless those fit into one.
void PlanTiles(std::size_t grain, std::size_t disparities, std::size_t costs, Plan& plan) {
  plan.grain = grain;
  plan.columns = kWindow / grain;
  const std::size_t blocks = RoundUp(costs, plan.columns) / plan.columns;
  const std::size_t tiles = RoundUp(blocks, kMostWindows) / kMostWindows;
  if (grain == kLong) {
    plan.windows = Smaller(RoundUp(disparities, plan.columns) / plan.columns, kMostWindows);
  } else {
    plan.windows = Larger(Smaller(RoundUp(blocks, tiles) / tiles, disparities / plan.columns), 2);
  }
  plan.band = plan.windows * plan.columns;
}

Plan PlanOf(const CostVolumeJob& job) {
  Plan plan{};
  plan.channels = job.channels / kCostVolumeBlock * kCostVolumeBlock;
  const std::size_t costs = Smaller(job.disparities, job.width);
  PlanTiles(kShort, job.disparities, costs, plan);
  // Long grains cost about a quarter more, but come in smaller steps of disparities.
  const bool wasteful = RoundUp(costs, plan.band) * 4 > RoundUp(costs, kLong) * 5;
  if (job.disparities < plan.band || wasteful) PlanTiles(kLong, job.disparities, costs, plan);
  plan.cover = Smaller(RoundUp(costs, plan.band), Larger(job.disparities, plan.band));
  plan.lead = RoundUp(plan.cover, plan.columns);
  plan.span = kPixels * plan.columns;
  const std::size_t fitting = kPackedBudget / plan.channels;
  const std::size_t panel = fitting > 2 * plan.lead ? fitting - plan.lead : plan.lead;
  plan.panel = RoundUp(Smaller(job.width, panel), plan.span);
  plan.pitch = ((plan.panel + plan.lead) * plan.grain / kWindow | 1) * kWindow;
  return plan;
}

struct Row {
  const std::int8_t* pixels;
  std::size_t width;
  std::size_t channels;  // distance of pixels
};

// 32 channels of each.
QXTOOLS_INLINE __m512i TwoPixels(const std::int8_t* low, const std::int8_t* high) {
  const __m256i first = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(low));
  const __m256i second = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(high));
  return _mm512_inserti64x4(_mm512_castsi256_si512(first), second, 1);
}

// Turns four pixels x four channels-of-four into grains, in each 128-bit part by itself.
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

// Stores the even parts of both as one grain of a window, the odd ones as the grain `distance`
// bytes further, and adds 128 times their values to the sums.
QXTOOLS_INLINE void StoreGrains(__m512i low, __m512i high, std::int8_t* to, std::size_t distance,
                                __m512i sums[2]) {
  const __m512i even = _mm512_shuffle_i32x4(low, high, 0x88);
  const __m512i odd = _mm512_shuffle_i32x4(low, high, 0xDD);
  _mm512_store_si512(to, even);
  _mm512_store_si512(to + distance, odd);
  sums[0] = _mm512_dpbusd_epi32(sums[0], _mm512_set1_epi8(-128), even);
  sums[1] = _mm512_dpbusd_epi32(sums[1], _mm512_set1_epi8(-128), odd);
}

// Packs a block of channels of a window's pixels.
template <std::size_t kGrain>
QXTOOLS_INLINE void PackBlock(const std::int8_t* const pixel[kWindow / kGrain], std::size_t channel,
                              std::size_t pitch, std::int8_t* to, __m512i sums[2]) {
  if constexpr (kGrain == kLong) {
    StoreGrains(TwoPixels(pixel[0] + channel, pixel[1] + channel),
                TwoPixels(pixel[2] + channel, pixel[3] + channel), to, pitch, sums);
  } else {
    __m512i in[8];
    QXTOOLS_UNROLL
    for (std::size_t t = 0; t < 8; ++t) {
      const std::size_t p = t / 4 * 8 + t % 4;
      in[t] = TwoPixels(pixel[p] + channel, pixel[p + 4] + channel);
    }
    __m512i low[4];
    __m512i high[4];
    Transpose(in, low);
    Transpose(in + 4, high);
    QXTOOLS_UNROLL
    for (std::size_t k = 0; k < 4; ++k) {
      StoreGrains(low[k], high[k], to + k * pitch, 4 * pitch, sums);
    }
  }
}

// Packs a window: the pixel at `column` first, then those left of it. Behind the row its last pixel
// is repeated: nothing made of it is kept.
template <std::size_t kGrain>
void PackWindow(const Row& row, std::size_t column, const Plan& plan, std::int8_t* to) {
  constexpr std::size_t kColumns = kWindow / kGrain;
  const std::int8_t* pixel[kColumns];
  for (std::size_t k = 0; k < kColumns; ++k) {
    pixel[k] = row.pixels + Smaller(column - k, row.width - 1) * row.channels;
  }
  __m512i sums[2] = {_mm512_setzero_si512(), _mm512_setzero_si512()};
  for (std::size_t c = 0; c < plan.channels; c += kCostVolumeBlock) {
    PackBlock<kGrain>(pixel, c, plan.pitch, to, sums);
    to += kCostVolumeBlock / kGrain * plan.pitch;
  }
  _mm512_store_si512(to,
                     _mm512_sub_epi32(_mm512_setzero_si512(), _mm512_add_epi32(sums[0], sums[1])));
}

// Packs `count` columns, whole windows, from `column` on; `to` is the place of the last of them.
void PackColumns(const Row& row, std::size_t column, std::size_t count, const Plan& plan,
                 std::int8_t* to) {
  const auto pack = plan.grain == kShort ? PackWindow<kShort> : PackWindow<kLong>;
  for (std::size_t t = 0; t < count; t += plan.columns, to += kWindow) {
    pack(row, column + count - 1 - t, plan, to);
  }
}

// Columns of a row whose windows are in scratch together.
struct Panel {
  std::size_t row;      // number of the row's first pixel in the maps
  std::size_t first;    // column
  std::size_t end;      // column behind the last one
  bool keeps_lead;      // what it needs before its first column is there from the row before
  std::int8_t* packed;  // place of column first + plan.panel - 1
};

std::int8_t* PackedAt(const Plan& plan, const Panel& panel, std::size_t column) {
  return panel.packed + (panel.first + plan.panel - 1 - column) * plan.grain;
}

// Packs what the panel needs before its first column. What lies left of the row counts as zeros,
// and so do its costs.
void PackLead(const Row& row, const Plan& plan, const Panel& panel) {
  std::int8_t* to = panel.packed + plan.panel * plan.grain;
  const std::size_t inside = Smaller(panel.first, plan.lead);
  PackColumns(row, panel.first - inside, inside, plan, to);
  to += inside * plan.grain;
  for (std::size_t g = 0; g <= plan.channels / plan.grain; ++g, to += plan.pitch) {
    __builtin_memset(to, 0, (plan.lead - inside) * plan.grain);
  }
}

// Part of the next span's data for each tile to ask for, while it hides the wait for it. All of it
// in one go would stall.
struct Share {
  std::size_t pixels;  // bytes of either map
  std::size_t costs;   // bytes
};

// The data may lie behind the end of all: the request is then dropped.
QXTOOLS_INLINE void Prefetch(const std::int8_t* from, std::size_t offset, std::size_t bytes) {
  std::uintptr_t at = reinterpret_cast<std::uintptr_t>(from) + offset;
  for (const std::uintptr_t end = at + bytes; at < end; at += kCostVolumeAlignment) {
    _mm_prefetch(reinterpret_cast<const char*>(at), _MM_HINT_T0);
  }
}

// The span's tiles of disparities d and on. `share` is the number of the first one's share.
void ComputeBand(const CostVolumeJob& job, const Plan& plan, const TileJob& tiles,
                 const Panel& panel, std::size_t start, std::size_t d, const Share& each,
                 std::size_t share) {
  const Tile tile = avx512vnni::TileOf(plan.grain, plan.windows, start <= d);
  const std::size_t next = panel.row + start + plan.span;  // pixel
  const std::size_t end = Smaller(start + plan.columns, panel.end);
  for (std::size_t column = start; column < end; ++column, ++share) {
    Prefetch(job.left, next * job.channels + share * each.pixels, each.pixels);
    Prefetch(job.right, next * job.channels + share * each.pixels, each.pixels);
    Prefetch(job.cost, next * job.disparities + share * each.costs, each.costs);
    const std::size_t pixel = panel.row + column;
    std::size_t pixels = 1;
    while (pixels < kPixels && column + pixels * plan.columns < panel.end) ++pixels;
    tile(tiles, {job.left + pixel * job.channels,
                 PackedAt(plan, panel, column) + d * plan.grain - (kPixels - 1) * kWindow,
                 job.cost + pixel * job.disparities + d, pixels});
  }
}

void ComputeSpan(const CostVolumeJob& job, const Plan& plan, const TileJob& tiles,
                 const Panel& panel, std::size_t start) {
  // Pixels of the span have no disparities from here on.
  const std::size_t reach = Smaller(plan.cover, RoundUp(start + plan.span, plan.band));
  const std::size_t bands = RoundUp(reach, plan.band) / plan.band;
  const Share each{kPixels * job.channels / bands, kPixels * job.disparities / bands};
  for (std::size_t b = 0; b < bands; ++b) {
    // A band that would end behind the last cost is moved back to overlap the one before.
    const std::size_t d = Smaller(b * plan.band, plan.cover - plan.band);
    ComputeBand(job, plan, tiles, panel, start, d, each, b * plan.columns);
  }
  if (reach >= job.disparities) return;
  const std::size_t end = Smaller(start + plan.span, panel.end);
  for (std::size_t column = start; column < end; ++column) {
    std::int8_t* cost = job.cost + (panel.row + column) * job.disparities;
    __builtin_memset(cost + reach, 0, job.disparities - reach);
  }
}

void ComputePanel(const CostVolumeJob& job, const Plan& plan, const TileJob& tiles,
                  const Panel& panel) {
  const Row right{job.right + panel.row * job.channels, job.width, job.channels};
  if (!panel.keeps_lead) PackLead(right, plan, panel);
  for (std::size_t x = panel.first; x < panel.end; x += plan.span) {
    const std::size_t count = Smaller(plan.span, RoundUp(panel.end - x, plan.columns));
    PackColumns(right, x, count, plan, PackedAt(plan, panel, x + count - 1));
    // A span that would end behind the panel is moved back as well.
    const bool whole = panel.end - panel.first >= plan.span;
    ComputeSpan(job, plan, tiles, panel, whole ? Smaller(x, panel.end - plan.span) : panel.first);
  }
}

}  // namespace

std::size_t CostVolumeScratchAvx512Vnni(const CostVolumeJob& job) {
  const Plan plan = PlanOf(job);
  return (plan.channels / plan.grain + 1) * plan.pitch;
}

void CostVolumeRowsAvx512Vnni(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                              std::uint8_t* scratch) {
  const Plan plan = PlanOf(job);
  const TileJob tiles{plan.channels,
                      plan.pitch,
                      plan.columns * job.channels,
                      plan.columns * job.disparities,
                      Smaller(plan.band, job.disparities),
                      job.scale,
                      avx512vnni::NeedsWide(plan.channels, job.scale)};
  auto* packed = reinterpret_cast<std::int8_t*>(scratch);
  for (std::size_t y = first_row; y < end_row; ++y) {
    const bool keeps_lead = y > first_row && plan.panel >= job.width;
    for (std::size_t first = 0; first < job.width; first += plan.panel) {
      const std::size_t end = Smaller(first + plan.panel, job.width);
      ComputePanel(job, plan, tiles, {y * job.width, first, end, keeps_lead, packed});
    }
  }
}

}  // namespace image
}  // namespace utils
}  // namespace qx
