#include <omp.h>

#include <cmath>

#include "bench/cost_volume_rivals.h"

#if defined(__x86_64__)
#include <immintrin.h>
#else
#include <arm_neon.h>
#endif

namespace qx::bench {
namespace {

using utils::image::CostVolumeJob;

#if defined(__x86_64__)

__m256i Widen(const std::int8_t* from) {
  return _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
}

std::int32_t Dot(const std::int8_t* a, const std::int8_t* b, std::size_t channels) {
  __m256i sums = _mm256_setzero_si256();
  for (std::size_t c = 0; c + 32 <= channels; c += 32) {
    sums = _mm256_add_epi32(sums, _mm256_madd_epi16(Widen(a + c), Widen(b + c)));
    sums = _mm256_add_epi32(sums, _mm256_madd_epi16(Widen(a + c + 16), Widen(b + c + 16)));
  }
  const __m128i four =
      _mm_add_epi32(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
  const __m128i two = _mm_add_epi32(four, _mm_shuffle_epi32(four, 0x4E));
  return _mm_cvtsi128_si32(_mm_add_epi32(two, _mm_shuffle_epi32(two, 0xB1)));
}

#else

std::int32_t Dot(const std::int8_t* a, const std::int8_t* b, std::size_t channels) {
  int32x4_t sums = vdupq_n_s32(0);
  for (std::size_t c = 0; c + 32 <= channels; c += 32) {
    const int8x16_t a0 = vld1q_s8(a + c);
    const int8x16_t a1 = vld1q_s8(a + c + 16);
    const int8x16_t b0 = vld1q_s8(b + c);
    const int8x16_t b1 = vld1q_s8(b + c + 16);
    sums = vpadalq_s16(sums, vmull_s8(vget_low_s8(a0), vget_low_s8(b0)));
    sums = vpadalq_s16(sums, vmull_high_s8(a0, b0));
    sums = vpadalq_s16(sums, vmull_s8(vget_low_s8(a1), vget_low_s8(b1)));
    sums = vpadalq_s16(sums, vmull_high_s8(a1, b1));
  }
  return vaddvq_s32(sums);
}

#endif

}  // namespace

void ElementRows(const CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                 float* costs) {
  for (std::size_t y = first_row; y < end_row; ++y) {
    for (std::size_t d = 0; d < job.disparities; ++d) {
      for (std::size_t x = d; x < job.width; ++x) {
        const std::size_t pixel = y * job.width + x;
        const std::int32_t sum = Dot(job.left + pixel * job.channels,
                                     job.right + (pixel - d) * job.channels, job.channels);
        costs[pixel * job.disparities + d] = static_cast<float>(sum) * job.scale;
      }
    }
  }
}

void QuantiseElements(const float* costs, std::size_t count, std::int8_t* to) {
  for (std::size_t k = 0; k < count; ++k) {
    const float value = costs[k] >= 0 ? costs[k] : costs[k] * utils::image::kCostVolumeLeak;
    to[k] = static_cast<std::int8_t>(static_cast<std::int32_t>(std::floor(value + 0.5F)));
  }
}

void ElementByElement(const CostVolumeJob& job, std::size_t rows) {
  std::vector<float> costs(rows * job.width * job.disparities);
#pragma omp parallel for schedule(static)
  for (std::size_t y = 0; y < rows; ++y) ElementRows(job, y, y + 1, costs.data());
  const std::size_t row = job.width * job.disparities;
#pragma omp parallel for schedule(static)
  for (std::size_t y = 0; y < rows; ++y) {
    QuantiseElements(costs.data() + y * row, row, job.cost + y * row);
  }
}

}  // namespace qx::bench
