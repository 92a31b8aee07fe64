// The quantiser tables of a JPEG quality.
#pragma once

#include <array>
#include <cstdint>

namespace qx::utils::image::engine {

// 8 x 8 divisors, row by row. FFmpeg replaces the first one by 8.
using QuantiserTable = std::array<std::uint16_t, 64>;

struct QuantiserTables {
  QuantiserTable luma, chroma;
};

// Returns: the tables of ITU-T T.81, annex K.1, scaled for a quality of 1 .. 100; at 50 they are
//          as printed there.
QuantiserTables QuantiserTablesFor(std::uint32_t quality);

}  // namespace qx::utils::image::engine
