// What the correlation kernel computes, as plain arithmetic. It shares no code with the processor's
// cost volume, so that a comparison of the two is meaningful.
#pragma once

#include <cstdint>
#include <vector>

#include "qxtools/emulated_board.h"

namespace qx::board {

// Correlates two maps of signed bytes; `exponent` e scales the mean product by 2^-e.
// Output: `cost`, height x width x disparities signed bytes, the disparities of a pixel adjacent.
void Correlate(const emulated_board::Geometry& geometry, const std::vector<std::int8_t>& left,
               const std::vector<std::int8_t>& right, std::uint32_t exponent,
               std::vector<std::int8_t>& cost);

}  // namespace qx::board
