// The scale exponent: all that the correlation kernel learns of the frames' scales.
#pragma once

#include <cstdint>

#include "qxtools/image_frame.h"

namespace qx::utils::image::correlation {

// log2(1 / product of the three scales), in single precision.
float ScaleExponent(const velkar::vision::ImageFrame& left, const velkar::vision::ImageFrame& right,
                    const velkar::vision::ImageFrame& output);

// Both round towards zero, saturate, and turn NaN into 0, as AArch64's conversions do.
std::uint32_t ToUnsigned(float exponent);
std::int32_t ToSigned(float exponent);

}  // namespace qx::utils::image::correlation
