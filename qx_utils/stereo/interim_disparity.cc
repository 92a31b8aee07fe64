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

std::uint16_t MedianAround(const DisparityMap& map, int x, int y, int radius) {
  std::array<std::uint16_t, 25> window = {};
  auto end = window.begin();
  for (int v = std::max(y - radius, 0); v <= std::min(y + radius, map.height - 1); ++v) {
    const std::uint16_t* row = map.Row(v);
    const int last = std::min(x + radius, map.width - 1);
    end = std::copy_if(row + std::max(x - radius, 0), row + last + 1, end,
                       [](std::uint16_t disparity) { return disparity != kMissingDisparity; });
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
    if (visited[to] || map.values[to] == kMissingDisparity) return;
    if (std::abs(map.values[to] - map.values[from]) > 256) return;
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

DisparityMap SelectDisparityMap(const Volume<const std::int16_t>& costs) {
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
      if (map.Row(y)[x] != kMissingDisparity) filtered.Row(y)[x] = MedianAround(map, x, y, radius);
    }
  }
  return filtered;
}

void RemoveSpeckles(int pixels, DisparityMap& map) {
  std::vector<char> visited(map.values.size(), 0);
  std::vector<std::size_t> patch;
  for (std::size_t i = 0; i < map.values.size(); ++i) {
    if (visited[i] || map.values[i] == kMissingDisparity) continue;
    CollectPatch(map, i, visited, patch);
    if (patch.size() >= static_cast<std::size_t>(pixels)) continue;
    for (const std::size_t p : patch) map.values[p] = kMissingDisparity;
  }
}

namespace {

constexpr int kJoinRadius = 2;

bool IsMissing(std::uint16_t disparity) { return disparity == kMissingDisparity; }

// Returns: whether the row has anything to fill from.
bool FillRow(std::uint16_t* row, int width) {
  std::uint16_t* const end = row + width;
  std::uint16_t* gap = std::find_if(row, end, IsMissing);
  while (gap != end) {
    std::uint16_t* const gap_end = std::find_if_not(gap, end, IsMissing);
    if (gap == row && gap_end == end) return false;
    const std::uint16_t left = gap == row ? *gap_end : gap[-1];
    const std::uint16_t right = gap_end == end ? left : *gap_end;
    std::fill(gap, gap_end, std::min(left, right));
    gap = std::find_if(gap_end, end, IsMissing);
  }
  return true;
}

// Copies rows that have disparities over those without, downwards and then upwards.
void FillEmptyRows(DisparityMap& map) {
  const auto copy_if_empty = [&map](int from, int to) {
    if (IsMissing(map.Row(to)[0])) std::copy_n(map.Row(from), map.width, map.Row(to));
  };
  for (int y = 1; y < map.height; ++y) copy_if_empty(y - 1, y);
  for (int y = map.height - 2; y >= 0; --y) copy_if_empty(y + 1, y);
  if (IsMissing(map.values[0])) std::fill(map.values.begin(), map.values.end(), std::uint16_t{0});
}

}  // namespace

DisparityMap FillMissing(const DisparityMap& map) {
  DisparityMap filled = map;
  bool complete = true;
  for (int y = 0; y < map.height; ++y) complete &= FillRow(filled.Row(y), map.width);
  if (!complete) FillEmptyRows(filled);
  DisparityMap joined = MedianFilter(filled, kJoinRadius);
  std::transform(map.values.begin(), map.values.end(), joined.values.begin(), joined.values.begin(),
                 [](std::uint16_t measured, std::uint16_t fill) {
                   return IsMissing(measured) ? fill : measured;
                 });
  return joined;
}

}  // namespace qx::utils::stereo
