#include <cmath>
#include <numeric>
#include <stdexcept>

#include "qx_utils/stereo/camera/depth_inputs.h"
#include "qxtools/depth.h"

namespace qx::utils::stereo {
namespace {

// The colours of a picture: `step` bytes from one pixel to the next, of which the first belongs to
// red and those after `green` and `blue` bytes to the others.
struct Colours {
  const std::uint8_t* data;
  std::size_t pitch, step, green, blue;
};

Colours ColoursOf(const FramePtr& picture, const Shape& size) {
  if (picture == nullptr) {
    static constexpr std::uint8_t kWhite = 255;
    return {&kWhite, 0, 0, 0, 0};
  }
  if (picture->pixel_format == kQXPixelFormatRGB888) {
    const Shape shape = ShapeOf(picture, kQXPixelFormatRGB888, 1, "picture");
    CheckShape(shape, {size.height, size.width, 3}, "picture");
    return {picture->Data(), 3 * size.width, 3, 1, 2};
  }
  const GreyView luma = LumaOf(picture, "picture");
  CheckShape({luma.height, luma.width, 1}, size, "picture");
  return {luma.data, luma.pitch, 1, 0, 0};
}

// What a row of points is made of.
struct Row {
  const float* depth;
  const std::uint8_t* colour;
  const std::uint8_t* confidence;  // null: none
  std::size_t width;
  float y;  // of the points at depth 1
};

std::size_t CountPoints(const float* depth, std::size_t width) {
  std::size_t count = 0;
  for (std::size_t x = 0; x < width; ++x) count += std::isfinite(depth[x]) ? 1 : 0;
  return count;
}

void WriteRow(const Row& row, const Colours& colours, const StereoGeometry& geometry,
              Point* point) {
  const auto center = static_cast<float>(geometry.center_x);
  const auto scale = static_cast<float>(1 / geometry.focal_length);
  const std::uint8_t* colour = row.colour;
  for (std::size_t x = 0; x < row.width; ++x, colour += colours.step) {
    const float z = row.depth[x];
    if (!std::isfinite(z)) continue;
    const float column = (static_cast<float>(x) - center) * scale;
    const std::uint8_t confidence = row.confidence == nullptr ? std::uint8_t{0} : row.confidence[x];
    *point++ = {column * z,           row.y * z, z, colour[0], colour[colours.green],
                colour[colours.blue], confidence};
  }
}

}  // namespace

std::vector<Point> ComputePoints(const DepthMap& depth, const StereoGeometry& geometry,
                                 const FramePtr& picture, const FramePtr& confidence) {
  const Shape size{depth.Height(), depth.Width(), 1};
  if (size.Values() == 0) throw std::invalid_argument("depth: the map is empty");
  CheckGeometry(geometry);
  const Colours colours = ColoursOf(picture, size);
  const std::uint8_t* const certain = ConfidenceOf(confidence, size);
  std::vector<std::size_t> ends(size.height);  // of the points of each row
#pragma omp parallel for schedule(static)
  for (std::uint32_t y = 0; y < depth.Height(); ++y) {
    ends[y] = CountPoints(depth.Row(y), size.width);
  }
  std::partial_sum(ends.begin(), ends.end(), ends.begin());
  std::vector<Point> points(ends.back());
#pragma omp parallel for schedule(static)
  for (std::uint32_t y = 0; y < depth.Height(); ++y) {
    const Row row{depth.Row(y), colours.data + y * colours.pitch,
                  certain == nullptr ? nullptr : certain + y * size.width, size.width,
                  static_cast<float>((y - geometry.center_y) / geometry.focal_length)};
    WriteRow(row, colours, geometry, points.data() + (y == 0 ? 0 : ends[y - 1]));
  }
  return points;
}

}  // namespace qx::utils::stereo
