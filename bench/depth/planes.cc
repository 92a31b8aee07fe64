#include "bench/depth/planes.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>

namespace qx::bench {
namespace {

using utils::stereo::StereoGeometry;

constexpr double kPi = 3.14159265358979323846;
constexpr double kFinestDetail = 3;  // pixels
constexpr int kOctaves = 4;
constexpr int kRays = 3;  // per pixel and direction
constexpr double kSensorNoise = 2;

// A number in -1 .. 1 that belongs to a point of a grid.
double ValueAt(std::int64_t x, std::int64_t y) {
  auto bits = static_cast<std::uint64_t>(x) * 0x9E3779B97F4A7C15U +
              static_cast<std::uint64_t>(y) * 0xC2B2AE3D27D4EB4FU;
  bits = (bits ^ (bits >> 31U)) * 0xBF58476D1CE4E5B9U;
  bits = (bits ^ (bits >> 29U)) * 0x94D049BB133111EBU;
  return static_cast<double>(bits >> 40U) / (1 << 23) - 1;
}

// Between the values of the grid, smoothly.
double Noise(double x, double y) {
  const double column = std::floor(x), row = std::floor(y);
  const auto i = static_cast<std::int64_t>(column), j = static_cast<std::int64_t>(row);
  const auto ease = [](double t) { return t * t * (3 - 2 * t); };
  const double u = ease(x - column), v = ease(y - row);
  const double upper = ValueAt(i, j) + u * (ValueAt(i + 1, j) - ValueAt(i, j));
  const double lower = ValueAt(i, j + 1) + u * (ValueAt(i + 1, j + 1) - ValueAt(i, j + 1));
  return upper + v * (lower - upper);
}

// The plane z = distance + tan(slant) x, and a texture on it.
class Surface {
 public:
  Surface(const Plane& plane, double focal_length)
      : distance_(plane.distance),
        slope_(std::tan(plane.slant * kPi / 180)),
        detail_(kFinestDetail * plane.distance / focal_length) {}

  // Where the ray through (a, b, 1) of a camera `offset` to the right meets it.
  double DepthOf(double a, double offset) const {
    return (distance_ + slope_ * offset) / (1 - slope_ * a);
  }

  double Grey(double x, double y) const {
    double value = 0, size = detail_;
    for (int octave = 0; octave < kOctaves; ++octave, size *= 2) value += Noise(x / size, y / size);
    return 128 + 40 * value;
  }

 private:
  double distance_, slope_, detail_;
};

// The mean over the rays of pixel (x, y); `center` is the camera's principal point.
double PixelOf(const Surface& surface, const StereoGeometry& geometry, double center, double offset,
               int x, int y) {
  const auto part = [](int ray) { return (ray + 0.5) / kRays - 0.5; };  // of a pixel
  double sum = 0;
  for (int row = 0; row < kRays; ++row) {
    const double b = (y + part(row) - geometry.center_y) / geometry.focal_length;
    for (int column = 0; column < kRays; ++column) {
      const double a = (x + part(column) - center) / geometry.focal_length;
      const double z = surface.DepthOf(a, offset);
      sum += surface.Grey(a * z + offset, b * z);
    }
  }
  return sum / (kRays * kRays);
}

tools::FramePtr Render(const Surface& surface, const StereoGeometry& geometry, bool right,
                       int width, int height) {
  const double center = right ? geometry.center_x_right : geometry.center_x;
  const double offset = right ? geometry.baseline : 0;
  std::mt19937 random(right ? 2 : 1);
  std::normal_distribution<double> noise(0, kSensorNoise);
  const auto columns = static_cast<std::uint32_t>(width), rows = static_cast<std::uint32_t>(height);
  const auto bytes = std::make_shared<std::vector<std::uint8_t>>();
  bytes->reserve(std::size_t{columns} * rows);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double grey = PixelOf(surface, geometry, center, offset, x, y) + noise(random);
      bytes->push_back(static_cast<std::uint8_t>(std::clamp(std::lround(grey), 0L, 255L)));
    }
  }
  return velkar::vision::ImageFrameImpl::Create(kQXPixelFormatGray8, bytes->data(), rows, columns,
                                                1, bytes);
}

}  // namespace

PlanePair RenderPlane(const Plane& plane, const StereoGeometry& geometry, int width, int height) {
  const Surface surface(plane, geometry.focal_length);
  PlanePair pair{Render(surface, geometry, false, width, height),
                 Render(surface, geometry, true, width, height),
                 {width, height}};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double a = (x - geometry.center_x) / geometry.focal_length;
      pair.depth.Row(y)[x] = static_cast<float>(surface.DepthOf(a, 0));
    }
  }
  return pair;
}

}  // namespace qx::bench
