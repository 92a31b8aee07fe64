#include "qxtools/depth.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>

#include "qx_utils/stereo/camera/depth_inputs.h"
#include "qxtools/stereo_matcher.h"

namespace qx::utils::stereo {

// Makes maps whose values are not initialised.
struct DepthMapAccess {
  static DepthMap NewMap(std::uint32_t width, std::uint32_t height) {
    DepthMap map;
    map.values_.reset(new float[std::size_t{width} * height]);
    map.width_ = width;
    map.height_ = height;
    return map;
  }
};

namespace {

constexpr float kMissing = std::numeric_limits<float>::quiet_NaN();

// The formula in units of disparity maps: z = factor / (value - offset).
struct Formula {
  float factor, offset;
  float nearest, farthest;
};

void CheckLimits(const DepthLimits& limits, bool has_confidence) {
  if (!(limits.nearest >= 0 && limits.nearest <= limits.farthest)) {
    throw std::invalid_argument("limits: depths of " + std::to_string(limits.nearest) + " .. " +
                                std::to_string(limits.farthest));
  }
  if (limits.least_confidence < 0 || limits.least_confidence > 255) {
    throw std::invalid_argument("limits: least_confidence is " +
                                std::to_string(limits.least_confidence) + ", not 0 .. 255");
  }
  if (limits.least_confidence > 0 && !has_confidence) {
    throw std::invalid_argument("limits: least_confidence needs a confidence map");
  }
}

Formula FormulaOf(const StereoGeometry& geometry, const DepthLimits& limits) {
  const double offset = geometry.center_x - geometry.center_x_right;
  return {static_cast<float>(geometry.focal_length * geometry.baseline * kDisparityUnits),
          static_cast<float>(offset * kDisparityUnits), static_cast<float>(limits.nearest),
          static_cast<float>(limits.farthest)};
}

// Without branches, so that compilers turn it into vector code. At infinity it divides by zero.
void ComputeRow(const std::uint16_t* disparity, std::size_t width, const Formula& formula,
                float* depth) {
  const Formula f = formula;
  for (std::size_t x = 0; x < width; ++x) {
    const float distance = static_cast<float>(disparity[x]) - f.offset;
    const float z = f.factor / (distance > 0 ? distance : 0);
    const bool dropped = (disparity[x] == kMissingDisparity) | (z < f.nearest) | (z > f.farthest);
    depth[x] = dropped ? kMissing : z;
  }
}

void DropUncertain(const std::uint8_t* confidence, std::size_t width, int least, float* depth) {
  for (std::size_t x = 0; x < width; ++x) {
    depth[x] = confidence[x] < least ? kMissing : depth[x];
  }
}

// A double holds the product of two floats exactly.
void RoundRow(const float* depth, std::size_t width, float scale, std::uint16_t* millimetres) {
  for (std::size_t x = 0; x < width; ++x) {
    const double value = static_cast<double>(depth[x]) * static_cast<double>(scale) + 0.5;
    const bool fits = (value >= 1) & (value < 65536);
    millimetres[x] = static_cast<std::uint16_t>(static_cast<int>(fits ? value : 0));
  }
}

}  // namespace

DepthMap::DepthMap(std::uint32_t width, std::uint32_t height)
    : width_(width), height_(height), values_(new float[std::size_t{width} * height]) {
  std::fill_n(values_.get(), std::size_t{width} * height, kMissing);
}

DepthMap::DepthMap(DepthMap&& other) noexcept { *this = std::move(other); }

DepthMap& DepthMap::operator=(DepthMap&& other) noexcept {
  width_ = std::exchange(other.width_, 0);
  height_ = std::exchange(other.height_, 0);
  values_ = std::move(other.values_);
  return *this;
}

DepthMap::~DepthMap() = default;

DepthMap ComputeDepth(const FramePtr& disparity, const StereoGeometry& geometry,
                      const DepthLimits& limits, const FramePtr& confidence) {
  const Shape shape = ShapeOf(disparity, kQXPixelFormatGray16, 2, "disparity");
  CheckShape(shape, {shape.height, shape.width, 1}, "disparity");
  CheckGeometry(geometry);
  const std::uint8_t* const certain = ConfidenceOf(confidence, shape);
  CheckLimits(limits, certain != nullptr);
  DepthMap depth = DepthMapAccess::NewMap(disparity->Width(), disparity->Height());
  const Formula formula = FormulaOf(geometry, limits);
  const auto* const values = reinterpret_cast<const std::uint16_t*>(disparity->Data());
#pragma omp parallel for schedule(static)
  for (std::uint32_t y = 0; y < depth.Height(); ++y) {
    const std::size_t first = y * shape.width;
    ComputeRow(values + first, shape.width, formula, depth.Row(y));
    if (limits.least_confidence > 0) {
      DropUncertain(certain + first, shape.width, limits.least_confidence, depth.Row(y));
    }
  }
  return depth;
}

FrameImplPtr DepthInMillimetres(const DepthMap& depth, double millimetres_per_unit) {
  if (!(millimetres_per_unit > 0) || !std::isfinite(millimetres_per_unit)) {
    throw std::invalid_argument("millimetres_per_unit is " + std::to_string(millimetres_per_unit));
  }
  if (depth.Width() == 0 || depth.Height() == 0) {
    throw std::invalid_argument("depth: the map is empty");
  }
  auto frame = NewFrame(kQXPixelFormatGray16, {depth.Height(), depth.Width(), 1}, 0.001F);
  auto* const values = ValuesOf<std::uint16_t>(frame);
  const auto scale = static_cast<float>(millimetres_per_unit);
#pragma omp parallel for schedule(static)
  for (std::uint32_t y = 0; y < depth.Height(); ++y) {
    RoundRow(depth.Row(y), depth.Width(), scale, values + std::size_t{y} * depth.Width());
  }
  return frame;
}

}  // namespace qx::utils::stereo
