#include "qx_utils/stereo/interim.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>

#include "qxtools/stereo_matcher.h"

namespace qx::utils::stereo {
namespace {

constexpr int kConsistent = 1;  // px that left and right may disagree by

// The disparity that each right pixel of row `y` prefers.
std::vector<int> SelectRight(const Volume<const std::int16_t>& costs, int y) {
  const auto width = static_cast<std::size_t>(costs.width);
  std::vector<int> best(width, 0);
  std::vector<std::int16_t> best_cost(width, std::numeric_limits<std::int16_t>::max());
  for (int x = 0; x < costs.width; ++x) {
    const std::int16_t* cost = costs.At(x, y);
    for (int d = 0; d < std::min(costs.disparities, x + 1 - costs.first); ++d) {
      const auto right = static_cast<std::size_t>(x - costs.first - d);
      if (cost[d] < best_cost[right]) {
        best_cost[right] = cost[d];
        best[right] = d;
      }
    }
  }
  return best;
}

// The lowest point of the parabola through the costs at d - 1, d and d + 1, of which d is lowest.
int Refine(const std::int16_t* cost, int d, int disparities) {
  if (d == 0 || d == disparities - 1) return 0;
  const int curvature = cost[d - 1] + cost[d + 1] - 2 * cost[d];
  if (curvature == 0) return 0;
  return (256 * (cost[d - 1] - cost[d + 1]) + 256 * curvature + curvature) / (2 * curvature) - 128;
}

void SelectRow(const Volume<const std::int16_t>& costs, int y, std::uint16_t* selected) {
  const std::vector<int> right = SelectRight(costs, y);
  for (int x = 0; x < costs.width; ++x) {
    const std::int16_t* cost = costs.At(x, y);
    const int best = static_cast<int>(std::min_element(cost, cost + costs.disparities) - cost);
    if (best + costs.first > x) continue;
    if (std::abs(right[static_cast<std::size_t>(x - costs.first - best)] - best) > kConsistent)
      continue;
    const int refined = 256 * (best + costs.first) + Refine(cost, best, costs.disparities);
    selected[x] = static_cast<std::uint16_t>(refined);
  }
}

}  // namespace

void SelectDisparityMap(const Volume<const std::int16_t>& costs, std::uint16_t* map) {
  std::fill_n(map, costs.width * costs.height, std::uint16_t{0xFFFF});
#pragma omp parallel for schedule(static)
  for (int y = 0; y < costs.height; ++y) SelectRow(costs, y, map + y * costs.width);
}

}  // namespace qx::utils::stereo
