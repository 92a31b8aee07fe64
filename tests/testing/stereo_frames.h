// Frames for the stereo matcher, and the way through its single steps.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "qxtools/cost_volume.h"
#include "qxtools/stereo_matcher.h"

namespace qx::testing {

using StereoFrame = std::shared_ptr<velkar::vision::ImageFrame>;

inline StereoFrame NewFrame(QXPixelFormat format, std::size_t height, std::size_t width,
                            std::size_t channels) {
  const bool planar = format >= kQXPixelFormatNV21 && format <= kQXPixelFormatYUV420P;
  const std::size_t halves = format == kQXPixelFormatGray16 ? 4 : planar ? 3 : 2;
  const std::size_t bytes = height * width * channels * halves / 2;
  const auto memory = std::make_shared<std::vector<std::uint8_t>>(bytes);
  return velkar::vision::ImageFrameImpl::Create(
      format, memory->data(), static_cast<std::uint32_t>(height), static_cast<std::uint32_t>(width),
      static_cast<std::uint32_t>(channels), memory);
}

inline std::string BytesOf(const StereoFrame& frame) {
  return std::string(reinterpret_cast<const char*>(frame->Data()), frame->DataSize());
}

inline std::string BytesOf(const utils::stereo::StereoResult& result) {
  return BytesOf(result.disparity) + BytesOf(result.filled) + BytesOf(result.confidence);
}

// The recipe of the matcher's header.
inline utils::stereo::StereoResult MatchInSteps(const StereoFrame& left, const StereoFrame& right,
                                                const utils::stereo::StereoOptions& options) {
  using namespace utils::stereo;  // NOLINT(google-build-using-namespace)
  const auto left_map = ComputeFeatures(left);
  const auto right_map = ComputeFeatures(right, options.first_disparity);
  const auto volume = NewFrame(kQXPixelFormatUint8, left->Height(), left->Width(),
                               static_cast<std::size_t>(options.disparities));
  utils::image::CostVolume(left_map.get(), right_map.get(), volume.get());
  StereoResult result = SelectDisparities(AggregateCosts(volume, left, options), options);
  result.filled = FillDisparities(result.disparity);
  return result;
}

}  // namespace qx::testing
