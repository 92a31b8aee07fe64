#include "qx_utils/image/ffmpeg/yuv_rows.h"

#include <algorithm>
#include <cmath>

namespace qx::utils::image::engine {
namespace {

// As many fractional bits as leave the largest coefficient, below 2.2 and below 1, in 16 bits.
constexpr int kFromBits = 13;
constexpr int kToBits = 15;
constexpr int kFour = 2;  // the sum of four pixels has two more

struct Weights {
  double red;
  double blue;
};

// By the codes of ITU-T H.273, table 4.
Weights WeightsOf(std::uint8_t matrix) {
  switch (matrix) {
    case AVCOL_SPC_BT709:
      return {0.2126, 0.0722};
    case AVCOL_SPC_FCC:
      return {0.30, 0.11};
    case AVCOL_SPC_SMPTE240M:
      return {0.212, 0.087};
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL:
      return {0.2627, 0.0593};
    default:
      return {0.299, 0.114};
  }
}

std::int16_t Fixed(double value, int bits) {
  return static_cast<std::int16_t>(std::lround(std::ldexp(value, bits)));
}

double LumaSpan(const YuvCoding& coding) { return coding.full_range ? 255.0 : 219.0; }
double ChromaSpan(const YuvCoding& coding) { return coding.full_range ? 255.0 : 224.0; }
std::int16_t LumaOffset(const YuvCoding& coding) {
  return static_cast<std::int16_t>(coding.full_range ? 0 : 16);
}

constexpr std::int32_t Half(int bits) { return std::int32_t{1} << (bits - 1); }

std::uint8_t Clip(std::int32_t value) {
  return static_cast<std::uint8_t>(std::clamp<std::int32_t>(value, 0, 255));
}

std::int32_t Dot(const std::int16_t (&coefficients)[3], std::int16_t r, std::int16_t g,
                 std::int16_t b) {
  return coefficients[0] * r + coefficients[1] * g + coefficients[2] * b;
}

}  // namespace

FromYuv FromYuvOf(const YuvCoding& coding) {
  const auto [red, blue] = WeightsOf(coding.matrix);
  const double green = 1 - red - blue;
  const double chroma = 255.0 / ChromaSpan(coding);
  const auto fixed = [](double value) { return Fixed(value, kFromBits); };
  return {LumaOffset(coding),
          fixed(255.0 / LumaSpan(coding)),
          fixed(2 * (1 - red) * chroma),
          fixed(-2 * blue * (1 - blue) / green * chroma),
          fixed(-2 * red * (1 - red) / green * chroma),
          fixed(2 * (1 - blue) * chroma)};
}

ToYuv ToYuvOf(const YuvCoding& coding) {
  const auto [red, blue] = WeightsOf(coding.matrix);
  const double green = 1 - red - blue;
  const auto fixed = [](double value) { return Fixed(value, kToBits); };
  const double luma = LumaSpan(coding) / 255.0;
  const double u = ChromaSpan(coding) / 255.0 / (2 - 2 * blue);
  const double v = ChromaSpan(coding) / 255.0 / (2 - 2 * red);
  return {{fixed(red * luma), fixed(green * luma), fixed(blue * luma)},
          {fixed(-red * u), fixed(-green * u), fixed((1 - blue) * u)},
          {fixed((1 - red) * v), fixed(-green * v), fixed(-blue * v)},
          LumaOffset(coding)};
}

void RgbFromYuv(const FromYuv& coefficients, const YuvRows& yuv, int pixels, const RgbRows& rgb) {
  const FromYuv c = coefficients;
  for (int x = 0; x < pixels; ++x) {
    const auto y = static_cast<std::int16_t>(yuv.y[x] - c.luma_offset);
    const auto u = static_cast<std::int16_t>(yuv.u[x / 2] - 128);
    const auto v = static_cast<std::int16_t>(yuv.v[x / 2] - 128);
    const std::int32_t luma = c.luma * y + Half(kFromBits);
    rgb.r[x] = Clip((luma + c.red_v * v) >> kFromBits);
    rgb.g[x] = Clip((luma + c.green_u * u + c.green_v * v) >> kFromBits);
    rgb.b[x] = Clip((luma + c.blue_u * u) >> kFromBits);
  }
}

void LumaFromRgb(const ToYuv& coefficients, const RgbRows& rgb, int pixels, std::uint8_t* luma) {
  const ToYuv c = coefficients;
  const std::int32_t offset = (c.luma_offset << kToBits) + Half(kToBits);
  for (int x = 0; x < pixels; ++x) {
    luma[x] = Clip((Dot(c.luma, rgb.r[x], rgb.g[x], rgb.b[x]) + offset) >> kToBits);
  }
}

void ChromaFromRgb(const ToYuv& coefficients, const RgbRows& upper, const RgbRows& lower,
                   int pixels, std::uint8_t* u, std::uint8_t* v) {
  const ToYuv c = coefficients;
  constexpr int kBits = kToBits + kFour;
  constexpr std::int32_t kOffset = (128 << kBits) + Half(kBits);
  for (int x = 0; x < (pixels + 1) / 2; ++x) {
    const int left = 2 * x, right = std::min(left + 1, pixels - 1);
    const auto sum = [&](const std::uint8_t* above, const std::uint8_t* below) {
      return static_cast<std::int16_t>(above[left] + above[right] + below[left] + below[right]);
    };
    const std::int16_t r = sum(upper.r, lower.r), g = sum(upper.g, lower.g),
                       b = sum(upper.b, lower.b);
    u[x] = Clip((Dot(c.u, r, g, b) + kOffset) >> kBits);
    v[x] = Clip((Dot(c.v, r, g, b) + kOffset) >> kBits);
  }
}

void GreyFromLuma(const YuvCoding& coding, const std::uint8_t* luma, int pixels,
                  std::uint8_t* grey) {
  if (coding.full_range) {
    std::copy_n(luma, pixels, grey);
    return;
  }
  for (int x = 0; x < pixels; ++x) {
    grey[x] = Clip(((std::max(luma[x] - 16, 0)) * 255 + 109) / 219);
  }
}

void LumaFromGrey(const YuvCoding& coding, const std::uint8_t* grey, int pixels,
                  std::uint8_t* luma) {
  if (coding.full_range) {
    std::copy_n(grey, pixels, luma);
    return;
  }
  for (int x = 0; x < pixels; ++x) {
    luma[x] = static_cast<std::uint8_t>((grey[x] * 219 + 127) / 255 + 16);
  }
}

}  // namespace qx::utils::image::engine
