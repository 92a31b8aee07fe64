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

}  // namespace
}  // namespace qx::utils
