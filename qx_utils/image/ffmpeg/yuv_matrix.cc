#include "qx_utils/image/ffmpeg/yuv_matrix.h"

#include <algorithm>
#include <cmath>

namespace qx::utils::image::engine {
namespace {

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

int LumaSpan(const YuvCoding& coding) { return coding.full_range ? 255 : 219; }
int ChromaSpan(const YuvCoding& coding) { return coding.full_range ? 255 : 224; }
int LumaOffset(const YuvCoding& coding) { return coding.full_range ? 0 : 16; }

template <typename Function>
ValueTable TableOf(const Function& function) {
  ValueTable table{};
  for (int i = 0; i < 256; ++i) {
    const double value = std::clamp(std::floor(function(i) + 0.5), 0.0, 255.0);
    table[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value);
  }
  return table;
}

}  // namespace

FromYuv FromYuvOf(const YuvCoding& coding) {
  const auto [red, blue] = WeightsOf(coding.matrix);
  const double green = 1 - red - blue;
  const double chroma = 255.0 / ChromaSpan(coding);
  const auto fixed = [](double value) { return Fixed(value, kFromYuvBits); };
  return {static_cast<std::int16_t>(LumaOffset(coding)),
          fixed(255.0 / LumaSpan(coding)),
          fixed(2 * (1 - red) * chroma),
          fixed(-2 * blue * (1 - blue) / green * chroma),
          fixed(-2 * red * (1 - red) / green * chroma),
          fixed(2 * (1 - blue) * chroma)};
}

ToYuv ToYuvOf(const YuvCoding& coding) {
  const auto [red, blue] = WeightsOf(coding.matrix);
  const double green = 1 - red - blue;
  const auto fixed = [](double value) { return Fixed(value, kToYuvBits); };
  const double luma = LumaSpan(coding) / 255.0;
  const double u = ChromaSpan(coding) / 255.0 / (2 - 2 * blue);
  const double v = ChromaSpan(coding) / 255.0 / (2 - 2 * red);
  return {{fixed(red * luma), fixed(green * luma), fixed(blue * luma)},
          {fixed(-red * u), fixed(-green * u), fixed((1 - blue) * u)},
          {fixed((1 - red) * v), fixed(-green * v), fixed(-blue * v)},
          static_cast<std::int16_t>(LumaOffset(coding))};
}

ValueTable GreyFromLuma(const YuvCoding& coding) {
  return TableOf([&](int luma) { return (luma - LumaOffset(coding)) * 255.0 / LumaSpan(coding); });
}

ValueTable LumaFromGrey(const YuvCoding& coding) {
  return TableOf([&](int grey) { return grey * LumaSpan(coding) / 255.0 + LumaOffset(coding); });
}

}  // namespace qx::utils::image::engine
