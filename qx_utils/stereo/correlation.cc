#include "qx_utils/stereo/correlation.h"

#include <omp.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <stdexcept>

#include "qx_utils/stereo/kernel_choice.h"
#include "qxtools/emulated_board.h"

namespace qx::utils::stereo {
namespace {

using velkar::vision::ImageFrameImpl;

int BufferBytes(const Shape& shape) {
  if (shape.Values() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    throw std::length_error(Text(shape) + " bytes are too large for a buffer of the kernel");
  }
  return static_cast<int>(shape.Values());
}

// The emulated board's built-in container takes any shape; a container of one's own has its own.
void ShapeBoard(const Shape& maps, std::size_t disparities) {
  if (!emulated_board::IsEmulated() || std::getenv("xclbin_path") != nullptr) return;
  emulated_board::Settings settings = emulated_board::GetSettings();
  settings.geometry = {
      static_cast<std::uint32_t>(maps.height), static_cast<std::uint32_t>(maps.width),
      static_cast<std::uint32_t>(maps.channels), static_cast<std::uint32_t>(disparities)};
  emulated_board::SetSettings(settings);
}

ImageFrameImpl FrameOver(const void* bytes, const Shape& shape, float scale) {
  auto* data = const_cast<std::uint8_t*>(static_cast<const std::uint8_t*>(bytes));
  ImageFrameImpl frame = *ImageFrameImpl::Create(
      kQXPixelFormatUint8, data, static_cast<std::uint32_t>(shape.height),
      static_cast<std::uint32_t>(shape.width), static_cast<std::uint32_t>(shape.channels));
  frame.scale = scale;
  return frame;
}

}  // namespace

void CorrelationUnit::Open(const Shape& maps, std::size_t disparities) {
  const int input_bytes = BufferBytes(maps);
  const int output_bytes = BufferBytes({maps.height, maps.width, disparities});
  kernel_.reset();  // before another container is loaded
  ShapeBoard(maps, disparities);
  kernel_ = std::make_unique<image::Kernel_FPGA>(0, input_bytes, output_bytes);
  maps_ = maps;
  disparities_ = disparities;
}

void CorrelationUnit::Compute(const FeatureMaps& maps, std::size_t disparities, std::int8_t* cost) {
  if (!kernel_ || !(maps_ == maps.shape) || disparities_ != disparities) {
    Open(maps.shape, disparities);
  }
  ImageFrameImpl left = FrameOver(maps.left, maps.shape, maps.left_scale);
  ImageFrameImpl right = FrameOver(maps.right, maps.shape, maps.right_scale);
  ImageFrameImpl output = FrameOver(cost, {maps.shape.height, maps.shape.width, disparities}, 1);
  kernel_->CostVolume_FPGA(&left, &right, &output);
}

CorrelationRows CorrelationOnDemand::Prepare(const FeatureMaps& maps, std::size_t disparities,
                                             std::int8_t* cost) {
  const auto per_channel = static_cast<float>(1.0 / static_cast<double>(maps.shape.channels));
  job_ = {maps.left,
          maps.right,
          cost,
          maps.shape.width,
          maps.shape.channels,
          disparities,
          maps.right_scale * maps.left_scale * per_channel};
  pitch_ = image::CostVolumeScratchPitch(ChosenCostVolume(), job_);
  const auto threads = static_cast<std::size_t>(std::max(1, omp_get_max_threads()));
  scratch_.resize(threads * pitch_ + image::kCostVolumeAlignment);
  const auto compute = [](void* self, std::size_t first, std::size_t end, std::size_t thread) {
    static_cast<CorrelationOnDemand*>(self)->Compute(first, end, thread);
  };
  return {compute, this};
}

void CorrelationOnDemand::Compute(std::size_t first, std::size_t end, std::size_t thread) {
  const auto address = reinterpret_cast<std::uintptr_t>(scratch_.data());
  const std::size_t padding = (0 - address) % image::kCostVolumeAlignment;
  ChosenCostVolume().rows(job_, first, end, scratch_.data() + padding + thread * pitch_);
}

}  // namespace qx::utils::stereo
