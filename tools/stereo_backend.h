// Where the cost volume of `qxtools stereo` is computed.
#pragma once

#include <cstdint>
#include <memory>

#include "qxtools/fpga_correlation.h"
#include "qxtools/image_frame.h"

namespace qx::tools {

enum class Backend { kCpu, kFpga };

class CostBackend {
 public:
  explicit CostBackend(Backend backend) : backend_(backend) {}

  // Computes the cost volume of a pair of feature maps. The kernel in programmable logic is opened
  // with the first pair and kept for all pairs of that size.
  // Errors: what the board reports.
  void Compute(velkar::vision::ImageFrame* left, velkar::vision::ImageFrame* right,
               velkar::vision::ImageFrame* output);

 private:
  void OpenKernel(const velkar::vision::ImageFrame& map, const velkar::vision::ImageFrame& cost);

  Backend backend_;
  std::unique_ptr<utils::image::Kernel_FPGA> kernel_;
  std::uint32_t map_bytes_ = 0;
  std::uint32_t cost_bytes_ = 0;
};

}  // namespace qx::tools
