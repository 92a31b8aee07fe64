// Cost volume with AVX-512 VNNI: register tiles of 4 left pixels x 4 windows of the right row.
//
// What is disparity d for a left pixel is d + 16 (or + 4, with long grains) for the next one of the
// tile, so they share windows: 7 windows and 4 left grains feed 16 multiplications, and nothing
// outside the band is computed. Short grains give a cost in each lane, long ones four lanes to be
// added up; but long ones share windows among few disparities.
//
// The multiplication takes unsigned and signed bytes. The sign bits of the left values are flipped,
// which adds 128 to them, so sums start at -128 times the sum of the right values.
#include <immintrin.h>

#include "qx_utils/image/kernels/cost_volume.h"
#include "qx_utils/image/kernels/cost_volume_avx512vnni.h"

namespace qx {
namespace utils {
namespace image {
namespace avx512vnni {
namespace {

// Those of a tile: [left pixel][window].
template <std::size_t kWindows>
using Sums = __m512i[kPixels][kWindows];

// The loops over registers are recursions with constant indices: arrays that a loop variable
// indexes would be kept in memory. Window kRight of the tile's is the first of its last pixel when
// 0, the last of its first pixel at the other end.
template <std::size_t kWindows, std::size_t kRight, std::size_t kLeft = 0>
QXTOOLS_INLINE void AddProducts(__m512i right, const __m512i (&left)[kPixels],
                                Sums<kWindows>& sums) {
  if constexpr (kLeft < kPixels) {
    constexpr std::size_t kReach = kRight + kLeft;  // kPixels - 1 is the pixel's first window
    if constexpr (kReach >= kPixels - 1 && kReach < kPixels - 1 + kWindows) {
      __m512i& sum = sums[kLeft][kReach - (kPixels - 1)];
      // As _mm512_dpbusd_epi32(), with the sum tied to its register: GCC 12 copies and spills all
      // sums around that intrinsic, which costs a third of the speed.
      __asm__("vpdpbusd %2, %1, %0" : "+v"(sum) : "v"(left[kLeft]), "v"(right));
    }
    AddProducts<kWindows, kRight, kLeft + 1>(right, left, sums);
  }
}

// Keeps the compiler from loading a value anew for each of its uses.
QXTOOLS_INLINE __m512i InRegister(__m512i value) {
  __asm__("" : "+v"(value));
  return value;
}

template <std::size_t kWindows, std::size_t kEnd, std::size_t kRight = 0>
QXTOOLS_INLINE void AddWindows(const std::int8_t* right, const __m512i (&left)[kPixels],
                               Sums<kWindows>& sums) {
  if constexpr (kRight < kEnd) {
    const __m512i window = InRegister(_mm512_loadu_si512(right + kRight * kWindow));
    AddProducts<kWindows, kRight>(window, left, sums);
    AddWindows<kWindows, kEnd, kRight + 1>(right, left, sums);
  }
}

template <std::size_t kWindows, std::size_t kLeft = 0>
QXTOOLS_INLINE void StartSums(const std::int8_t* starts, Sums<kWindows>& sums) {
  if constexpr (kLeft < kPixels) {
    const std::int8_t* own = starts + (kPixels - 1 - kLeft) * kWindow;
    sums[kLeft][0] = _mm512_loadu_si512(own);
    if constexpr (kWindows > 1) sums[kLeft][1] = _mm512_loadu_si512(own + kWindow);
    if constexpr (kWindows > 2) sums[kLeft][2] = _mm512_loadu_si512(own + 2 * kWindow);
    if constexpr (kWindows > 3) sums[kLeft][3] = _mm512_loadu_si512(own + 3 * kWindow);
    StartSums<kWindows, kLeft + 1>(starts, sums);
  }
}

// A left pixel's grain, repeated, with the sign bits flipped.
template <std::size_t kGrain>
QXTOOLS_INLINE __m512i LeftGrain(const std::int8_t* from) {
  const __m512i flip = _mm512_set1_epi8(-128);
  if constexpr (kGrain == kLong) {
    const __m128i grain = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
    return InRegister(_mm512_xor_si512(_mm512_broadcast_i32x4(grain), flip));
  } else {
    std::int32_t grain;
    __builtin_memcpy(&grain, from, sizeof(grain));
    return InRegister(_mm512_xor_si512(_mm512_set1_epi32(grain), flip));
  }
}

template <std::size_t kGrain, std::size_t kWindows, std::size_t kSkipped>
QXTOOLS_INLINE void Multiply(const TileJob& job, const TilePlace& place, Sums<kWindows>& sums) {
  const std::int8_t* right = place.right;
  StartSums<kWindows>(right + job.channels / kGrain * job.pitch, sums);
  const std::int8_t* pixel[kPixels];
  QXTOOLS_UNROLL
  for (std::size_t k = 0; k < kPixels; ++k) {
    pixel[k] = place.left + (k < place.pixels ? k : 0) * job.left_step;
  }
  for (std::size_t c = 0; c < job.channels; c += kGrain, right += job.pitch) {
    __m512i left[kPixels];
    QXTOOLS_UNROLL
    for (std::size_t k = 0; k < kPixels; ++k) left[k] = LeftGrain<kGrain>(pixel[k] + c);
    AddWindows<kWindows, kWindows + kPixels - 1 - kSkipped>(right, left, sums);
  }
}

// Scaled and leaky costs: the larger of the two is the leaky one below zero and the plain one
// above.
QXTOOLS_INLINE __m512 Leaky(__m512i sums, __m512 scale) {
  const __m512 value = _mm512_mul_ps(_mm512_cvtepi32_ps(sums), scale);
  return _mm512_max_ps(value, _mm512_mul_ps(value, _mm512_set1_ps(kCostVolumeLeak)));
}

constexpr int kDown = _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC;

// Rounded costs in byte 1 of the lanes, for costs of 15 bits: next to 1.5 * 2^15 a float's lowest
// eight bits are behind the point, and adding a half downwards is exact for all floats.
QXTOOLS_INLINE __m512i Round(__m512i sums, __m512 scale) {
  constexpr float kPoint = 49152.0F;
  return _mm512_castps_si512(
      _mm512_add_round_ps(Leaky(sums, scale), _mm512_set1_ps(kPoint + 0.5F), kDown));
}

// The same for all costs. What does not fit 32 bits becomes 0x80000000, whose low byte is right
// for all but positive values.
__m512i RoundWide(__m512i sums, __m512 scale) {
  const __m512 leaky = Leaky(sums, scale);
  const __m512 moved = _mm512_add_round_ps(leaky, _mm512_set1_ps(0.5F), kDown);
  const __m512i rounded = _mm512_cvt_roundps_epi32(moved, kDown);
  const __mmask16 high = _mm512_cmp_ps_mask(leaky, _mm512_set1_ps(2147483648.0F), _CMP_GE_OQ);
  return _mm512_mask_mov_epi32(_mm512_slli_epi32(rounded, 8), high, _mm512_set1_epi32(0xFF00));
}

QXTOOLS_INLINE __m512i Cost(__m512i sums, const TileJob& job) {
  const __m512 scale = _mm512_set1_ps(job.scale);
  return job.wide ? RoundWide(sums, scale) : Round(sums, scale);
}

// Gathers byte 1 of the lanes of up to four vectors. In lane order, those of a vector's 128-bit
// part p come to dword p of part m, m being the number of the vector.
template <std::size_t kCount>
QXTOOLS_INLINE __m512i Gather(const __m512i (&v)[kCount]) {
  const __m512i pick = _mm512_set1_epi32(0x0D090501);
  __m512i bytes = _mm512_shuffle_epi8(v[0], pick);
  if constexpr (kCount > 1) bytes = _mm512_mask_shuffle_epi8(bytes, 0x00F000F000F000F0, v[1], pick);
  if constexpr (kCount > 2) bytes = _mm512_mask_shuffle_epi8(bytes, 0x0F000F000F000F00, v[2], pick);
  if constexpr (kCount > 3) bytes = _mm512_mask_shuffle_epi8(bytes, 0xF000F000F000F000, v[3], pick);
  const __m512i order = _mm512_set_epi32(15, 11, 7, 3, 14, 10, 6, 2, 13, 9, 5, 1, 12, 8, 4, 0);
  return _mm512_permutexvar_epi32(order, bytes);
}

QXTOOLS_INLINE void Store16(std::int8_t* to, __m128i bytes) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to), bytes);
}

// Short grains: a window's lanes are the costs of 16 disparities.
template <std::size_t kWindows, std::size_t kLeft = 0>
QXTOOLS_INLINE void StoreLanes(const TileJob& job, std::size_t pixels, const Sums<kWindows>& sums,
                               std::int8_t* cost) {
  if constexpr (kLeft < kPixels) {
    if (kLeft >= pixels) return;
    __m512i costs[kWindows];
    QXTOOLS_UNROLL
    for (std::size_t m = 0; m < kWindows; ++m) costs[m] = Cost(sums[kLeft][m], job);
    const __m512i bytes = Gather(costs);
    if constexpr (kWindows == 4) {
      _mm512_storeu_si512(cost, bytes);
    } else {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(cost), _mm512_castsi512_si256(bytes));
      if constexpr (kWindows == 3) Store16(cost + 32, _mm512_extracti32x4_epi32(bytes, 2));
    }
    StoreLanes<kWindows, kLeft + 1>(job, pixels, sums, cost + job.cost_step);
  }
}

// Adds up the four lanes of each 128-bit part: those of window m give dword m.
template <std::size_t kWindows>
QXTOOLS_INLINE __m512i AddLanes(const __m512i (&sums)[kWindows]) {
  const __m512i a = sums[0];
  const __m512i b = sums[kWindows > 1 ? 1 : 0];
  const __m512i c = sums[kWindows > 2 ? 2 : 0];
  const __m512i d = sums[kWindows > 3 ? 3 : 0];
  const __m512i ab = _mm512_add_epi32(_mm512_unpacklo_epi32(a, b), _mm512_unpackhi_epi32(a, b));
  const __m512i cd = _mm512_add_epi32(_mm512_unpacklo_epi32(c, d), _mm512_unpackhi_epi32(c, d));
  return _mm512_add_epi32(_mm512_unpacklo_epi64(ab, cd), _mm512_unpackhi_epi64(ab, cd));
}

QXTOOLS_INLINE void StorePixel(const TileJob& job, __m128i bytes, std::int8_t* cost) {
  if (job.costs == 16) {
    Store16(cost, bytes);
  } else {
    std::int8_t all[16];
    Store16(all, bytes);
    __builtin_memcpy(cost, all, job.costs);
  }
}

// Long grains: a window's 128-bit parts are the costs of 4 disparities.
template <std::size_t kWindows>
QXTOOLS_INLINE void StoreParts(const TileJob& job, std::size_t pixels, const Sums<kWindows>& sums,
                               std::int8_t* cost) {
  __m512i costs[kPixels];
  QXTOOLS_UNROLL
  for (std::size_t k = 0; k < kPixels; ++k) costs[k] = Cost(AddLanes(sums[k]), job);
  const __m512i by_disparity = _mm512_set4_epi32(0x0F0B0703, 0x0E0A0602, 0x0D090501, 0x0C080400);
  const __m512i bytes = _mm512_shuffle_epi8(Gather(costs), by_disparity);
  StorePixel(job, _mm512_castsi512_si128(bytes), cost);
  if (pixels < 2) return;
  StorePixel(job, _mm512_extracti32x4_epi32(bytes, 1), cost + job.cost_step);
  if (pixels < 3) return;
  StorePixel(job, _mm512_extracti32x4_epi32(bytes, 2), cost + 2 * job.cost_step);
  if (pixels < 4) return;
  StorePixel(job, _mm512_extracti32x4_epi32(bytes, 3), cost + 3 * job.cost_step);
}

template <std::size_t kGrain, std::size_t kWindows, std::size_t kSkipped>
void ComputeTile(const TileJob& job, const TilePlace& place) {
  Sums<kWindows> sums;
  Multiply<kGrain, kWindows, kSkipped>(job, place, sums);
  if constexpr (kGrain == kLong) {
    StoreParts<kWindows>(job, place.pixels, sums, place.cost);
  } else {
    StoreLanes<kWindows>(job, place.pixels, sums, place.cost);
  }
}

template <std::size_t kGrain>
Tile TileWith(std::size_t windows, bool at_edge) {
  if constexpr (kGrain == kLong) {
    if (windows == 1) return ComputeTile<kGrain, 1, 0>;
  }
  if (windows == 2) return at_edge ? ComputeTile<kGrain, 2, 1> : ComputeTile<kGrain, 2, 0>;
  if (windows == 3) return at_edge ? ComputeTile<kGrain, 3, 2> : ComputeTile<kGrain, 3, 0>;
  return at_edge ? ComputeTile<kGrain, 4, 3> : ComputeTile<kGrain, 4, 0>;
}

}  // namespace

Tile TileOf(std::size_t grain, std::size_t windows, bool at_edge) {
  return grain == kLong ? TileWith<kLong>(windows, at_edge) : TileWith<kShort>(windows, at_edge);
}

bool NeedsWide(std::size_t channels, float scale) {
  const float magnitude = scale < 0 ? -scale : scale;
  return !(static_cast<float>(channels) * 16384.0F * magnitude < 16000.0F);
}

}  // namespace avx512vnni
}  // namespace image
}  // namespace utils
}  // namespace qx
