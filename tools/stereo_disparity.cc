#include "tools/stereo_disparity.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace qx::tools {
namespace {

constexpr int kConsistent = 1;  // px that left and right may disagree by

// The disparity that each right pixel of row `y` prefers.
std::vector<int> SelectRight(const Volume<const std::int16_t>& costs, int y) {
  const auto width = static_cast<std::size_t>(costs.width);
  std::vector<int> best(width, 0);
  std::vector<std::int16_t> best_cost(width, std::numeric_limits<std::int16_t>::max());
  for (int x = 0; x < costs.width; ++x) {
    const std::int16_t* cost = costs.At(x, y);
    for (int d = 0; d < std::min(costs.disparities, x + 1); ++d) {
      const auto right = static_cast<std::size_t>(x - d);
      if (cost[d] < best_cost[right]) {
        best_cost[right] = cost[d];
        best[right] = d;
      }
    }
  }
  return best;
}

// The lowest point of the parabola through the costs at d - 1, d and d + 1, of which d is lowest.
float Refine(const std::int16_t* cost, int d, int disparities) {
  if (d == 0 || d == disparities - 1) return static_cast<float>(d);
  const int curvature = cost[d - 1] + cost[d + 1] - 2 * cost[d];
  if (curvature == 0) return static_cast<float>(d);
  return static_cast<float>(d) +
         static_cast<float>(cost[d - 1] - cost[d + 1]) / static_cast<float>(2 * curvature);
}

void SelectRow(const Volume<const std::int16_t>& costs, int y, float* selected) {
  const std::vector<int> right = SelectRight(costs, y);
  for (int x = 0; x < costs.width; ++x) {
    const std::int16_t* cost = costs.At(x, y);
    const int best = static_cast<int>(std::min_element(cost, cost + costs.disparities) - cost);
    if (best > x) continue;
    if (std::abs(right[static_cast<std::size_t>(x - best)] - best) > kConsistent) continue;
    selected[x] = Refine(cost, best, costs.disparities);
  }
}

float MedianAround(const DisparityMap& map, int x, int y, int radius) {
  std::array<float, 25> window = {};
  auto end = window.begin();
  for (int v = std::max(y - radius, 0); v <= std::min(y + radius, map.height - 1); ++v) {
    const float* row = map.Row(v);
    const int last = std::min(x + radius, map.width - 1);
    end = std::copy_if(row + std::max(x - radius, 0), row + last + 1, end,
                       [](float disparity) { return disparity != kMissing; });
  }
  const auto middle = window.begin() + (end - window.begin()) / 2;
  std::nth_element(window.begin(), middle, end);
  return *middle;
}

// Finds the patch that pixel `seed` belongs to and marks its pixels as visited.
// Output: patch  the indices of its pixels.
void CollectPatch(const DisparityMap& map, std::size_t seed, std::vector<char>& visited,
                  std::vector<std::size_t>& patch) {
  const auto width = static_cast<std::size_t>(map.width);
  const auto visit = [&](std::size_t from, std::size_t to) {
    if (visited[to] || map.values[to] == kMissing) return;
    if (std::fabs(map.values[to] - map.values[from]) > 1) return;
    visited[to] = 1;
    patch.push_back(to);
  };
  patch.assign(1, seed);
  visited[seed] = 1;
  for (std::size_t n = 0; n < patch.size(); ++n) {
    const std::size_t i = patch[n];
    if (i % width > 0) visit(i, i - 1);
    if (i % width + 1 < width) visit(i, i + 1);
    if (i >= width) visit(i, i - width);
    if (i + width < map.values.size()) visit(i, i + width);
  }
}

}  // namespace

DisparityMap SelectDisparities(const Volume<const std::int16_t>& costs) {
  DisparityMap map(costs.width, costs.height);
#pragma omp parallel for schedule(static)
  for (int y = 0; y < costs.height; ++y) SelectRow(costs, y, map.Row(y));
  return map;
}

DisparityMap MedianFilter(const DisparityMap& map, int radius) {
  DisparityMap filtered(map.width, map.height);
#pragma omp parallel for schedule(static)
  for (int y = 0; y < map.height; ++y) {
    for (int x = 0; x < map.width; ++x) {
      if (map.Row(y)[x] != kMissing) filtered.Row(y)[x] = MedianAround(map, x, y, radius);
    }
  }
  return filtered;
}

void RemoveSpeckles(int pixels, DisparityMap& map) {
  std::vector<char> visited(map.values.size(), 0);
  std::vector<std::size_t> patch;
  for (std::size_t i = 0; i < map.values.size(); ++i) {
    if (visited[i] || map.values[i] == kMissing) continue;
    CollectPatch(map, i, visited, patch);
    if (patch.size() >= static_cast<std::size_t>(pixels)) continue;
    for (const std::size_t p : patch) map.values[p] = kMissing;
  }
}

}  // namespace qx::tools
