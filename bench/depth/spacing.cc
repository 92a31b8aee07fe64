#include "bench/depth/spacing.h"

#include <array>
#include <cmath>

namespace qx::bench {
namespace {

using utils::stereo::StereoGeometry;
using Vector = std::array<double, 3>;

double Dot(const Vector& a, const Vector& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// The point that a corner shows, at depth 1.
Vector RayOf(const Corner& corner, const StereoGeometry& geometry) {
  return {(corner.x - geometry.center_x) / geometry.focal_length,
          (corner.y - geometry.center_y) / geometry.focal_length, 1};
}

struct Side {
  double length;
  double from_first;  // its change with the depth of the first corner, and of the second one
  double from_second;
};

Side SideOf(const Corner& first, const Corner& second, const StereoGeometry& geometry) {
  const Vector a = RayOf(first, geometry), b = RayOf(second, geometry);
  Vector side{};
  for (std::size_t i = 0; i < side.size(); ++i) side[i] = b[i] * second.depth - a[i] * first.depth;
  const double length = std::sqrt(Dot(side, side));
  return {length, -Dot(side, a) / length, Dot(side, b) / length};
}

template <typename Function>
void ForEachNeighbours(const std::vector<Corner>& corners, std::size_t columns, Function&& use) {
  for (std::size_t i = 0; i < corners.size(); ++i) {
    if ((i + 1) % columns != 0) use(corners[i], corners[i + 1]);
    if (i + columns < corners.size()) use(corners[i], corners[i + columns]);
  }
}

}  // namespace

Spacing MeasureSpacing(const std::vector<Corner>& corners, std::size_t columns,
                       const StereoGeometry& geometry) {
  Spacing spacing;
  for (const Corner& corner : corners) spacing.missing += std::isnan(corner.depth) ? 1 : 0;
  double sum = 0, squares = 0;
  ForEachNeighbours(corners, columns, [&](const Corner& a, const Corner& b) {
    const double length = SideOf(a, b, geometry).length;
    if (std::isnan(length)) return;
    ++spacing.distances;
    sum += length;
    squares += length * length;
  });
  spacing.mean = sum / spacing.distances;
  spacing.spread = std::sqrt(squares / spacing.distances - spacing.mean * spacing.mean);
  return spacing;
}

double ExplainedSpread(const std::vector<Corner>& corners, std::size_t columns,
                       const StereoGeometry& geometry, double noise) {
  const auto error = [&](const Corner& corner) {
    return corner.depth * corner.depth / (geometry.focal_length * geometry.baseline) * noise;
  };
  double variance = 0;
  int sides = 0;
  ForEachNeighbours(corners, columns, [&](const Corner& a, const Corner& b) {
    const Side side = SideOf(a, b, geometry);
    variance += std::pow(side.from_first * error(a), 2) + std::pow(side.from_second * error(b), 2);
    ++sides;
  });
  return std::sqrt(variance / sides);
}

}  // namespace qx::bench
