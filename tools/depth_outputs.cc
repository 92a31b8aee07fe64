#include "tools/depth_outputs.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "tools/pictures/image_files.h"
#include "tools/pictures/numbered_file.h"
#include "tools/pictures/point_cloud.h"

namespace qx::tools {
namespace {

using utils::stereo::DepthMap;

std::size_t CountKnown(const DepthMap& map) {
  const std::size_t pixels = std::size_t{map.Width()} * map.Height();
  return static_cast<std::size_t>(std::count_if(map.Row(0), map.Row(0) + pixels,
                                                [](float depth) { return std::isfinite(depth); }));
}

template <typename T>
Image<T> ImageOf(const T* values, std::uint32_t width, std::uint32_t height) {
  Image<T> image(static_cast<int>(width), static_cast<int>(height));
  std::copy_n(values, image.values.size(), image.values.begin());
  return image;
}

std::string CommentOf(const DepthJob& job) {
  char text[120];
  std::snprintf(text, sizeof(text),
                "x right, y down, z ahead of the rectified left camera; 1 = %.9g mm",
                job.millimetres);
  return text;
}

}  // namespace

DepthResult ComputeDepthResult(const DepthJob& job, const utils::stereo::StereoGeometry& geometry,
                               const utils::stereo::StereoResult& matches,
                               const FramePtr& picture) {
  DepthResult result;
  result.map = ComputeDepth(matches.disparity, geometry, job.limits, matches.confidence);
  result.known = CountKnown(result.map);
  result.has_confidence = matches.confidence != nullptr;
  if (job.maps) result.millimetres = DepthInMillimetres(result.map, job.millimetres);
  if (job.points) result.points = ComputePoints(result.map, geometry, picture, matches.confidence);
  return result;
}

void WriteDepth(const DepthJob& job, const DepthResult& result, const std::string& directory,
                std::size_t number) {
  const std::uint32_t width = result.map.Width(), height = result.map.Height();
  if (job.maps) {
    WriteNumbered(directory, "depth", number, ".pfm", [&](OutputFile& file) {
      WritePfm(ImageOf(result.map.Row(0), width, height), file);
    });
    const auto* const values = reinterpret_cast<std::uint16_t*>(result.millimetres->Data());
    WriteNumbered(directory, "depth", number, ".png",
                  [&](OutputFile& file) { WritePng(ImageOf(values, width, height), file); });
  }
  if (!job.points) return;
  WriteNumbered(directory, "points", number, ".ply", [&](OutputFile& file) {
    WritePly(result.points, result.has_confidence, CommentOf(job), file);
  });
}

}  // namespace qx::tools
