// The kernels of the RGB and BGR to ARGB conversion: their arguments and the table of variants.
//
// A kernel is a single-threaded function over one run of pixels. It reads 3 * pixels bytes at `src`
// and writes 4 * pixels bytes at `dst`, never a byte more, and the two do not overlap. Every
// variant writes the same bytes as `scalar`, which is the definition.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx::utils::image {

using ArgbRun = void (*)(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels);

// One function for each order of the source's bytes.
struct ArgbRuns {
  ArgbRun rgb;
  ArgbRun bgr;
};

struct ArgbVariant {
  const char* name;
  std::uint32_t required;  // processor features, see cpu_features.h
  const ArgbRuns* cached;
  const ArgbRuns*
      streaming;  // or null: its stores bypass the caches, `dst` is kArgbStreamAlignment
};

constexpr std::size_t kArgbStreamAlignment = 64;  // one cache line, the widest vector

// From here on a picture no longer stays in the caches of one core until somebody reads it, and
// not fetching each line before it is overwritten gains more than is lost.
constexpr std::size_t kArgbStreamingBytes = std::size_t{16} << 20;

// All variants of this build, best first, `scalar` last.
const ArgbVariant* ArgbVariants(std::size_t* count);

// Converts with one variant, through its streaming form where that pays.
void WidenToArgb(const ArgbVariant& variant, ArgbRun ArgbRuns::*order, const std::uint8_t* src,
                 std::uint8_t* dst, std::size_t pixels);

extern const ArgbRuns kArgbScalar;
#if defined(__x86_64__)
extern const ArgbRuns kArgbSsse3, kArgbSsse3Streaming;
extern const ArgbRuns kArgbAvx2, kArgbAvx2Streaming;
extern const ArgbRuns kArgbAvx512Vbmi, kArgbAvx512VbmiStreaming;
#elif defined(__aarch64__)
extern const ArgbRuns kArgbNeon;
#endif

}  // namespace qx::utils::image
