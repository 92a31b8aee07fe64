// The cost volume of a pair of feature maps, on the processor or in programmable logic.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "qx_utils/image/kernels/cost_volume.h"
#include "qx_utils/stereo/frames.h"
#include "qx_utils/stereo/kernels/semi_global.h"
#include "qxtools/fpga_correlation.h"

namespace qx::utils::stereo {

// Scale of our feature maps. The kernel in programmable logic knows the product of two only as a
// power of two; 1/16 makes 252 * 252 / 16 / 32 channels = 124 of a perfect match.
constexpr float kFeatureScale = 0.25F;

// Two feature maps of one shape, row by row without gaps.
struct FeatureMaps {
  const std::int8_t* left;
  const std::int8_t* right;
  Shape shape;
  float left_scale;
  float right_scale;
};

// The correlation kernel in programmable logic, opened with the first pair and kept for all pairs
// of that size.
class CorrelationUnit {
 public:
  // Output: cost  height x width x disparities, overwritten.
  // Errors: std::length_error when the volume does not fit a buffer of the kernel, and what
  //         Kernel_FPGA reports.
  void Compute(const FeatureMaps& maps, std::size_t disparities, std::int8_t* cost);

 private:
  void Open(const Shape& maps, std::size_t disparities);

  std::unique_ptr<image::Kernel_FPGA> kernel_;
  Shape maps_ = {};
  std::size_t disparities_ = 0;
};

// The same on the processor, with the library's cost volume, row by row when they are asked for.
// The volume does not have to fit a frame.
class CorrelationOnDemand {
 public:
  // Returns: what computes rows of `cost` on the OpenMP threads of the caller; until the next call.
  // Errors:  std::bad_alloc. Memory is kept from call to call.
  CorrelationRows Prepare(const FeatureMaps& maps, std::size_t disparities, std::int8_t* cost);

 private:
  void Compute(std::size_t first, std::size_t end, std::size_t thread);

  image::CostVolumeJob job_ = {};
  std::vector<std::uint8_t> scratch_;  // for each thread
  std::size_t pitch_ = 0;
};

}  // namespace qx::utils::stereo
