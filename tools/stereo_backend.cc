#include "tools/stereo_backend.h"

#include <cstdlib>
#include <limits>
#include <stdexcept>

#include "qxtools/cost_volume.h"
#include "qxtools/emulated_board.h"

namespace qx::tools {
namespace {

using velkar::vision::ImageFrame;

int BufferSize(std::uint32_t bytes) {
  if (bytes > static_cast<std::uint32_t>(std::numeric_limits<int>::max())) {
    throw std::runtime_error("the pictures are too large for a buffer of the correlation kernel");
  }
  return static_cast<int>(bytes);
}

// The emulated board's built-in container takes any shape; a container of one's own has its own.
void ShapeBoard(const ImageFrame& map, const ImageFrame& cost) {
  if (!emulated_board::IsEmulated() || std::getenv("xclbin_path") != nullptr) return;
  emulated_board::Settings settings = emulated_board::GetSettings();
  settings.geometry = {map.Height(), map.Width(), map.Channel(), cost.Channel()};
  emulated_board::SetSettings(settings);
}

}  // namespace

void CostBackend::OpenKernel(const ImageFrame& map, const ImageFrame& cost) {
  kernel_.reset();  // before another container is loaded
  ShapeBoard(map, cost);
  kernel_ = std::make_unique<utils::image::Kernel_FPGA>(0, BufferSize(map.DataSize()),
                                                        BufferSize(cost.DataSize()));
  map_bytes_ = map.DataSize();
  cost_bytes_ = cost.DataSize();
}

void CostBackend::Compute(ImageFrame* left, ImageFrame* right, ImageFrame* output) {
  if (backend_ == Backend::kCpu) return utils::image::CostVolume(left, right, output);
  if (!kernel_ || map_bytes_ != left->DataSize() || cost_bytes_ != output->DataSize()) {
    OpenKernel(*left, *output);
  }
  kernel_->CostVolume_FPGA(left, right, output);
}

}  // namespace qx::tools
