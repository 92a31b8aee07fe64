#include "tools/stereo_filling.h"

#include <algorithm>

namespace qx::tools {
namespace {

constexpr int kJoinRadius = 2;

bool IsMissing(float disparity) { return disparity == kMissing; }

// Returns: whether the row has anything to fill from.
bool FillRow(float* row, int width) {
  float* const end = row + width;
  float* gap = std::find_if(row, end, IsMissing);
  while (gap != end) {
    float* const gap_end = std::find_if_not(gap, end, IsMissing);
    if (gap == row && gap_end == end) return false;
    const float left = gap == row ? *gap_end : gap[-1];
    const float right = gap_end == end ? left : *gap_end;
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
  if (IsMissing(map.values[0])) std::fill(map.values.begin(), map.values.end(), 0.0F);
}

}  // namespace

DisparityMap FillMissing(const DisparityMap& map) {
  DisparityMap filled = map;
  bool complete = true;
  for (int y = 0; y < map.height; ++y) complete &= FillRow(filled.Row(y), map.width);
  if (!complete) FillEmptyRows(filled);
  DisparityMap joined = MedianFilter(filled, kJoinRadius);
  std::transform(map.values.begin(), map.values.end(), joined.values.begin(), joined.values.begin(),
                 [](float measured, float fill) { return IsMissing(measured) ? fill : measured; });
  return joined;
}

}  // namespace qx::tools
