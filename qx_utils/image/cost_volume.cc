#include "qxtools/cost_volume.h"

#include <glog/logging.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>

#include "qx_utils/image/cost_volume_frames.h"
#include "qx_utils/image/kernels/cost_volume.h"

namespace qx::utils::image {
namespace {

using internal::FrameView;
using velkar::vision::ImageFrame;

// What makes the frames unusable together, or null.
const char* GeometryError(const FrameView& left, const FrameView& right, const FrameView& output) {
  if (left.height != right.height || left.width != right.width || left.channels != right.channels) {
    return "the two inputs differ in shape";
  }
  if (output.height != left.height || output.width != left.width) {
    return "the output's height and width are not the inputs'";
  }
  for (const FrameView* view : {&left, &right, &output}) {
    if (view->Elements() > std::numeric_limits<std::uint32_t>::max()) {
      return "height x width x channels does not fit 32 bits";
    }
    if (view->Elements() > view->data_size) return "DataSize() is below height x width x channels";
    if (view->data == nullptr && view->Elements() != 0) return "Data() is null";
  }
  return nullptr;
}

bool Overlap(const FrameView& a, const FrameView& b) {
  const auto a_first = reinterpret_cast<std::uintptr_t>(a.data);
  const auto b_first = reinterpret_cast<std::uintptr_t>(b.data);
  return a_first < b_first + b.Elements() && b_first < a_first + a.Elements();
}

float CombinedScale(const FrameView& left, const FrameView& right, const FrameView& output) {
  const auto per_channel = static_cast<float>(1.0 / left.channels);
  return right.scale * left.scale * output.scale * per_channel;
}

// The kernels read inputs while they write costs, so an output that overlaps an input is computed
// in a temporary buffer.
void RunWithTemporary(const FrameView& left, const FrameView& right, const FrameView& output) {
  const std::size_t bytes = static_cast<std::size_t>(output.Elements());
  const bool shared = Overlap(left, output) || Overlap(right, output);
  const std::unique_ptr<std::int8_t[]> copy(shared ? new std::int8_t[bytes] : nullptr);
  const CostVolumeJob job{reinterpret_cast<const std::int8_t*>(left.data),
                          reinterpret_cast<const std::int8_t*>(right.data),
                          shared ? copy.get() : reinterpret_cast<std::int8_t*>(output.data),
                          left.width,
                          left.channels,
                          output.channels,
                          CombinedScale(left, right, output)};
  ComputeCostVolume(ActiveCostVolumeKernel(), job, left.height);
  if (shared) std::memcpy(output.data, copy.get(), bytes);
}

void Compute(const FrameView& left, const FrameView& right, const FrameView& output) {
  internal::CheckCostVolumeFrames(&left, &right, &output);
  if (const char* error = GeometryError(left, right, output)) {
    LOG(ERROR) << "cost_volume leaves the output untouched: " << error << "; left " << left
               << left.data_size << " bytes, right " << right << right.data_size
               << " bytes, output " << output << output.data_size << " bytes";
    return;
  }
  const auto bytes = static_cast<std::size_t>(output.Elements());
  if (bytes == 0) return;
  if (left.channels < kCostVolumeBlock) {
    std::memset(output.data, 0, bytes);  // no whole block of channels: every sum is empty
    return;
  }
  RunWithTemporary(left, right, output);
}

}  // namespace

void CostVolume(ImageFrame* input_l, ImageFrame* input_r, ImageFrame* output) {
  if (input_l == nullptr || input_r == nullptr || output == nullptr) {
    LOG(ERROR) << "cost_volume: "
               << (input_l == nullptr   ? "input_l"
                   : input_r == nullptr ? "input_r"
                                        : "output")
               << " is a null frame; nothing is computed";
    return;
  }
  const FrameView left(*input_l);
  const FrameView right(*input_r);
  const FrameView volume(*output);
  Compute(left, right, volume);
}

}  // namespace qx::utils::image
