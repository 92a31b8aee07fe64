#include "qx_utils/image/ffmpeg/jpeg_quality.h"

#include <algorithm>

namespace qx::utils::image::engine {
namespace {

constexpr QuantiserTable kLuma = {16, 11, 10, 16, 24,  40,  51,  61,   //
                                  12, 12, 14, 19, 26,  58,  60,  55,   //
                                  14, 13, 16, 24, 40,  57,  69,  56,   //
                                  14, 17, 22, 29, 51,  87,  80,  62,   //
                                  18, 22, 37, 56, 68,  109, 103, 77,   //
                                  24, 35, 55, 64, 81,  104, 113, 92,   //
                                  49, 64, 78, 87, 103, 121, 120, 101,  //
                                  72, 92, 95, 98, 112, 100, 103, 99};
constexpr QuantiserTable kChroma = {17, 18, 24, 47, 99, 99, 99, 99,  //
                                    18, 21, 26, 66, 99, 99, 99, 99,  //
                                    24, 26, 56, 99, 99, 99, 99, 99,  //
                                    47, 66, 99, 99, 99, 99, 99, 99,  //
                                    99, 99, 99, 99, 99, 99, 99, 99,  //
                                    99, 99, 99, 99, 99, 99, 99, 99,  //
                                    99, 99, 99, 99, 99, 99, 99, 99,  //
                                    99, 99, 99, 99, 99, 99, 99, 99};

QuantiserTable Scaled(const QuantiserTable& table, std::uint32_t percent) {
  QuantiserTable scaled{};
  std::transform(table.begin(), table.end(), scaled.begin(), [percent](std::uint32_t divisor) {
    return static_cast<std::uint16_t>(std::clamp((divisor * percent + 50) / 100, 1U, 255U));
  });
  return scaled;
}

}  // namespace

QuantiserTables QuantiserTablesFor(std::uint32_t quality) {
  const std::uint32_t percent = quality < 50 ? 5000 / quality : 200 - 2 * quality;
  return {Scaled(kLuma, percent), Scaled(kChroma, percent)};
}

}  // namespace qx::utils::image::engine
