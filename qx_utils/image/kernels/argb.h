// The kernels of the RGB and BGR to ARGB conversion: their functions and the table of variants.
//
// A kernel's functions are single-threaded and convert one run of pixels. They allocate, log and
// throw nothing. Every variant writes the same bytes as `scalar`, which is the definition.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx::utils::image {

// Reads 3 * pixels bytes at `src` and writes 4 * pixels bytes at `dst`, never a byte more. The two
// do not overlap.
using ArgbRun = void (*)(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels);

// One function for each order of the source's bytes.
struct ArgbRuns {
  ArgbRun rgb;
  ArgbRun bgr;
};

constexpr std::size_t kArgbStreamAlignment = 64;  // one cache line, the widest vector

// From here on a picture no longer stays in the caches of one core until somebody reads it, and
// not fetching each line before it is overwritten gains more than is lost.
constexpr std::size_t kArgbStreamingBytes = std::size_t{16} << 20;

// What an instruction set brings.
struct ArgbKernel {
  ArgbRuns cached;
  ArgbRuns streaming;  // stores bypass the caches, `dst` is kArgbStreamAlignment; or null
};

struct ArgbVariant {
  const char* name;
  std::uint32_t required;  // processor features, see cpu_features.h
  const ArgbKernel* kernel;
};

// All variants of this build, best first, `scalar` last.
const ArgbVariant* ArgbVariants(std::size_t* count);

// The best one that the processor features in use allow.
const ArgbKernel& ActiveArgbKernel();

// Converts with one kernel, through its streaming form where that pays. Arguments as for ArgbRun.
void WidenToArgb(const ArgbKernel& kernel, ArgbRun ArgbRuns::*order, const std::uint8_t* src,
                 std::uint8_t* dst, std::size_t pixels);

extern const ArgbKernel kArgbScalar;
#if defined(__x86_64__)
extern const ArgbKernel kArgbSsse3;
extern const ArgbKernel kArgbAvx2;
extern const ArgbKernel kArgbAvx512Vbmi;
#elif defined(__aarch64__)
extern const ArgbKernel kArgbNeon;
#endif

}  // namespace qx::utils::image
