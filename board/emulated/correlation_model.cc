#include "board/emulated/correlation_model.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace qx::board {
namespace {

// The unit reads 32 channels per beat and has no partial beats.
constexpr std::uint32_t kBeatChannels = 32;
constexpr float kNegativeSlope = 13.0F / 128.0F;

std::int32_t DotProduct(const std::int8_t* a, const std::int8_t* b, std::uint32_t count) {
  // Unsigned, so that the sum of very many channels wraps like the unit's 32-bit adders.
  std::uint32_t sum = 0;
  for (std::uint32_t i = 0; i < count; ++i) sum += static_cast<std::uint32_t>(a[i] * b[i]);
  return static_cast<std::int32_t>(sum);
}

std::int8_t Quantise(float value) {
  if (value < 0.0F) value *= kNegativeSlope;
  constexpr double kLow = std::numeric_limits<std::int32_t>::min();
  constexpr double kHigh = std::numeric_limits<std::int32_t>::max();
  const double rounded = std::floor(static_cast<double>(value) + 0.5);
  return static_cast<std::int8_t>(static_cast<std::int32_t>(std::clamp(rounded, kLow, kHigh)));
}

// 2^-exponent / channels, rounded once to single precision.
float Factor(std::uint32_t channels, std::uint32_t exponent) {
  // From 400 on every result is zero; the bound lets the shift fit an int.
  const int shift = static_cast<int>(std::min<std::uint32_t>(exponent, 400));
  return std::ldexp(static_cast<float>(1.0 / channels), -shift);
}

}  // namespace

void Correlate(const emulated_board::Geometry& geometry, const std::vector<std::int8_t>& left,
               const std::vector<std::int8_t>& right, std::uint32_t exponent,
               std::vector<std::int8_t>& cost) {
  const std::size_t width = geometry.width;
  const std::size_t channels = geometry.channels;
  const std::uint32_t summed = geometry.channels / kBeatChannels * kBeatChannels;
  const float factor = Factor(geometry.channels, exponent);
  cost.assign(geometry.height * width * geometry.disparities, 0);
  std::int8_t* out = cost.data();
  for (std::size_t y = 0; y < geometry.height; ++y) {
    for (std::size_t x = 0; x < width; ++x) {
      const std::int8_t* a = left.data() + (y * width + x) * channels;
      for (std::size_t d = 0; d < geometry.disparities; ++d, ++out) {
        if (d > x) continue;  // no such column on the right: stays zero
        const std::int32_t sum =
            DotProduct(a, right.data() + (y * width + x - d) * channels, summed);
        *out = Quantise(static_cast<float>(sum) * factor);
      }
    }
  }
}

}  // namespace qx::board
