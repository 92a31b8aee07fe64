// What the kernels of all operations share.
//
// A kernel file includes this header through its own one. Everything is in an unnamed namespace:
// inline code that is compiled for one instruction set must never replace another's at link time.
#pragma once

#include <cstddef>

#define QXTOOLS_INLINE __attribute__((always_inline)) inline
#define QXTOOLS_INLINE_BODY __attribute__((always_inline))  // of a lambda

namespace qx::utils {
namespace {

constexpr std::size_t DivideUp(std::size_t a, std::size_t b) { return (a + b - 1) / b; }
constexpr std::size_t RoundUp(std::size_t a, std::size_t unit) { return DivideUp(a, unit) * unit; }
constexpr std::size_t Smaller(std::size_t a, std::size_t b) { return a < b ? a : b; }
constexpr std::size_t Larger(std::size_t a, std::size_t b) { return a < b ? b : a; }

template <std::size_t kNumber>
struct Index {
  constexpr operator std::size_t() const { return kNumber; }  // NOLINT(google-explicit-constructor)
};

// Calls body(Index<0>) .. body(Index<kCount - 1>): arrays of registers need constant indices, a
// loop variable would keep them in memory.
template <std::size_t kCount, typename Body, std::size_t kFirst = 0>
QXTOOLS_INLINE void Unroll(const Body& body) {
  if constexpr (kFirst < kCount) {
    body(Index<kFirst>());
    Unroll<kCount, Body, kFirst + 1>(body);
  }
}

}  // namespace
}  // namespace qx::utils
