// The kernels of the cost volume: their arguments and the table of variants.
//
// A kernel is a single-threaded function over a range of rows. It allocates, logs and throws
// nothing. Every variant writes the same bytes as `scalar`, which is the definition.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx::utils::image {

// Two feature maps of int8 values and the volume of their costs; the rows follow without gaps.
struct CostVolumeJob {
  const std::int8_t* left;   // rows x width x channels
  const std::int8_t* right;  // the same shape
  std::int8_t* cost;         // rows x width x disparities; overlaps neither input
  std::size_t width;         // at least 1
  std::size_t channels;      // at least kCostVolumeBlock
  std::size_t disparities;   // at least 1
  float scale;               // factor from the sum of products to the cost before quantisation
};

// Computes rows first_row .. end_row - 1.
// `scratch` holds the variant's scratch_bytes() for this job, aligned to kCostVolumeAlignment.
using CostVolumeRows = void (*)(const CostVolumeJob& job, std::size_t first_row,
                                std::size_t end_row, std::uint8_t* scratch);

constexpr std::size_t kCostVolumeAlignment = 64;  // one cache line, the widest vector

// Channels enter the sums in whole blocks of this many; a remainder contributes nothing.
constexpr std::size_t kCostVolumeBlock = 32;

// The slope of the quantisation below zero.
constexpr float kCostVolumeLeak = 0.1015625F;  // 13 / 128

// What an instruction set brings.
struct CostVolumeKernel {
  CostVolumeRows rows;
  std::size_t (*scratch_bytes)(const CostVolumeJob& job);  // for one thread; bounded in width
};

struct CostVolumeVariant {
  const char* name;
  std::uint32_t required;  // processor features, see cpu_features.h
  const CostVolumeKernel* kernel;
};

// All variants of this build, best first, `scalar` last.
const CostVolumeVariant* CostVolumeVariants(std::size_t* count);

// The best one that the processor features in use allow.
const CostVolumeKernel& ActiveCostVolumeKernel();

// Bytes from one thread's scratch to the next one's, a multiple of kCostVolumeAlignment: those that
// a thread needs, and some that none touches.
std::size_t CostVolumeScratchPitch(const CostVolumeKernel& kernel, const CostVolumeJob& job);

// Computes rows 0 .. rows - 1 of a job with one kernel on the OpenMP threads of the caller, each of
// which takes a contiguous share. Throws std::bad_alloc before any thread has started.
void ComputeCostVolume(const CostVolumeKernel& kernel, const CostVolumeJob& job, std::size_t rows);

extern const CostVolumeKernel kCostVolumeScalar;
#if defined(__x86_64__)
extern const CostVolumeKernel kCostVolumeAvx2;
extern const CostVolumeKernel kCostVolumeAvx512Vnni;
#elif defined(__aarch64__)
extern const CostVolumeKernel kCostVolumeNeon;
extern const CostVolumeKernel kCostVolumeNeonDotprod;
#endif

}  // namespace qx::utils::image
