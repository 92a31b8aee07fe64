// What the aggregation and the selection of semi-global matching share: a pixel's cells in vectors.
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/image/kernels/kernel-inl.h"
#include "qx_utils/stereo/kernels/semi_global_rows.h"

namespace qx::utils::stereo {
namespace {

template <std::size_t... kNumbers>
struct Numbers {};

inline constexpr std::size_t kMostCells = 256;

// Bytes that are 255 from the place kMostCells on, or there and at its two neighbours only: what is
// loaded from kMostCells - d on is a mask of the cells from d on, or around d.
struct Masks {
  std::uint8_t from[2 * kMostCells + 1];
  std::uint8_t around[2 * kMostCells + 1];
};

constexpr Masks MakeMasks() {
  Masks masks{};
  for (std::size_t i = kMostCells; i <= 2 * kMostCells; ++i) masks.from[i] = 255;
  for (std::size_t i = kMostCells - 1; i <= kMostCells + 1; ++i) masks.around[i] = 255;
  return masks;
}

inline constexpr Masks kMasks = MakeMasks();

template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void LoadAll(const std::uint8_t* from, typename Isa::Vector (&values)[kVectors]) {
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kVector = v;
    values[kVector] = Isa::Load(from + kVector * Isa::kBytes);
  });
}

template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE void StoreAll(const typename Isa::Vector (&values)[kVectors], std::uint8_t* to) {
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY {
    constexpr std::size_t kVector = v;
    Isa::Store(to + kVector * Isa::kBytes, values[kVector]);
  });
}

// Returns: the minimum of each lane.
template <typename Isa, std::size_t kVectors>
QXTOOLS_INLINE auto Minimum(const typename Isa::Vector (&values)[kVectors]) {
  auto minimum = values[0];
  Unroll<kVectors>([&](auto v) QXTOOLS_INLINE_BODY { minimum = Isa::Min(minimum, values[v]); });
  return minimum;
}

}  // namespace
}  // namespace qx::utils::stereo
