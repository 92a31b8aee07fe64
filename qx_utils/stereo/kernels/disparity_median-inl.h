// The medians of many pixels at a time, shared by the instruction sets.
//
// Every pixel takes the same steps. A missing value counts as the largest of all, the next one in
// the same window as the smallest, and so on in turns: then the value in the middle is the median
// of those that are there, the larger one of two. The middle is found by forgetting: of a little
// more than half of the values neither the smallest nor the largest can be it, so both are dropped,
// the next value joins, and so on until one is left.
//
// A source file includes this header and gives it these primitives in a struct `Isa`:
//
//   Vector, kLanes           unsigned 16-bit values, a divisor of kMedianGroup of them
//   Load(from), Store(to, a)
//   Min(a, b), Max(a, b), Equal(a, b)                     the last one: all ones where equal
//   And(a, b), Clear(a, bits), Xor(a, b)                  Clear: a without `bits`
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/image/kernels/kernel-inl.h"
#include "qx_utils/stereo/kernels/disparity_map.h"

namespace qx::utils::stereo {
namespace {

template <typename Isa>
QXTOOLS_INLINE void Exchange(typename Isa::Vector& a, typename Isa::Vector& b) {
  const typename Isa::Vector smaller = Isa::Min(a, b);
  b = Isa::Max(a, b);
  a = smaller;
}

// Brings the smallest of kCount values to the front and the largest to the back: first into their
// halves, then through them.
template <typename Isa, int kCount>
QXTOOLS_INLINE void Part(typename Isa::Vector* values) {
#pragma GCC unroll 16
  for (int i = 0; i < kCount / 2; ++i) Exchange<Isa>(values[i], values[kCount - 1 - i]);
#pragma GCC unroll 16
  for (int i = 1; i < (kCount + 1) / 2; ++i) Exchange<Isa>(values[0], values[i]);
#pragma GCC unroll 16
  for (int i = kCount / 2; i < kCount - 1; ++i) Exchange<Isa>(values[i], values[kCount - 1]);
}

// Returns: the middle one of kCount values and the kCount - 3 that follow at `next`.
template <typename Isa, int kCount>
QXTOOLS_INLINE typename Isa::Vector Middle(typename Isa::Vector* values,
                                           const typename Isa::Vector* next) {
  Part<Isa, kCount>(values);
  if constexpr (kCount == 3) {
    return values[1];
  } else {
    values[0] = *next;
    return Middle<Isa, kCount - 1>(values, next + 1);
  }
}

template <typename Isa, int kRadius>
void MedianOfSquares(const std::uint16_t* centre, std::size_t pitch, std::uint16_t* out) {
  constexpr int kSide = 2 * kRadius + 1, kCount = kSide * kSide;
  for (std::size_t x = 0; x < kMedianGroup; x += Isa::kLanes) {
    typename Isa::Vector values[kCount];
    auto missing = Isa::Load(centre);
    missing = Isa::Xor(missing, missing);
    const auto none = Isa::Equal(missing, missing);  // kMissing: all ones
    auto smallest = missing;                         // where the next missing value is
    const std::uint16_t* row = centre + x - kRadius * pitch - kRadius;
    for (int i = 0; i < kCount; ++i) {
      const auto value = Isa::Load(row + i % kSide);
      missing = Isa::Equal(value, none);
      values[i] = Isa::Clear(value, Isa::And(missing, smallest));
      smallest = Isa::Xor(smallest, missing);
      if (i % kSide == kSide - 1) row += pitch;
    }
    constexpr int kKept = kCount / 2 + 2;
    Isa::Store(out + x, Middle<Isa, kKept>(values, values + kKept));
  }
}

}  // namespace
}  // namespace qx::utils::stereo
