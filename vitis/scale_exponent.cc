#include "vitis/scale_exponent.h"

#include <cmath>
#include <limits>

namespace qx::utils::image::correlation {

float ScaleExponent(const velkar::vision::ImageFrame& left, const velkar::vision::ImageFrame& right,
                    const velkar::vision::ImageFrame& output) {
  return std::log2(1.0F / (right.scale * left.scale * output.scale));
}

std::uint32_t ToUnsigned(float exponent) {
  if (!(exponent > 0.0F)) return 0;  // NaN, too
  if (exponent >= 4294967296.0F) return std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(exponent);
}

std::int32_t ToSigned(float exponent) {
  if (std::isnan(exponent)) return 0;
  if (exponent >= 2147483648.0F) return std::numeric_limits<std::int32_t>::max();
  if (exponent <= -2147483648.0F) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(exponent);
}

}  // namespace qx::utils::image::correlation
