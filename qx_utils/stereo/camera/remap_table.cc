#include "qx_utils/stereo/camera/remap_table.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "qx_utils/image/kernels/kernel-inl.h"

namespace qx::utils::stereo {
namespace {

constexpr std::int32_t kNowhere = std::numeric_limits<std::int32_t>::min();

std::int32_t Whole(std::int32_t fixed) { return fixed >> kRemapBits; }  // rounds down
std::uint8_t Fraction(std::int32_t fixed) {
  return static_cast<std::uint8_t>(fixed & (kRemapUnit - 1));
}

// The corner of a window of `size` that begins with the first of the pixels, or earlier if it would
// not fit into the source otherwise.
std::int32_t Corner(std::int32_t first, std::size_t size, std::size_t source) {
  return std::min(first, static_cast<std::int32_t>(source - size));
}

}  // namespace

RemapTable::RemapTable(const PictureSize& size, const PictureSize& source,
                       const SourceOf& source_of)
    : size_(size), source_(source) {
  const std::size_t stride = RoundUp(size.width, kRemapStep);
  groups_.reserve(stride / kRemapGroup * size.height);
  for (auto* plane : {&places_, &fx_, &fy_}) plane->reserve(stride * size.height);
  covered_.reserve(size.width * size.height);
  for (std::size_t y = 0; y < size.height; ++y) {
    for (std::size_t first = 0; first < stride; first += kRemapGroup) {
      std::array<FixedPoint, kRemapGroup> points{};
      points.fill({kNowhere, kNowhere});
      for (std::size_t x = first; x < std::min(first + kRemapGroup, size.width); ++x) {
        points[x - first] = Round(source_of(x, y));
        covered_.push_back(IsOnSource(points[x - first]) ? 1 : 0);
      }
      AddGroup(points.data());
    }
  }
}

RemapView RemapTable::View() const {
  return {size_.width,      size_.height,   RoundUp(size_.width, kRemapStep),
          source_.width,    source_.height, groups_.data(),
          places_.data(),   fx_.data(),     fy_.data(),
          scattered_.data()};
}

RemapTable::FixedPoint RemapTable::Round(const PicturePoint& point) const {
  const auto width = static_cast<double>(source_.width);
  const auto height = static_cast<double>(source_.height);
  const double x = std::floor(point.x * kRemapUnit + 0.5) / kRemapUnit;
  const double y = std::floor(point.y * kRemapUnit + 0.5) / kRemapUnit;
  if (!(x > -1 && x < width && y > -1 && y < height)) return {kNowhere, kNowhere};  // NaN, too
  return {static_cast<std::int32_t>(x * kRemapUnit), static_cast<std::int32_t>(y * kRemapUnit)};
}

bool RemapTable::IsOnSource(const FixedPoint& point) const {
  const auto last_x = static_cast<std::int32_t>(source_.width - 1) * kRemapUnit;
  const auto last_y = static_cast<std::int32_t>(source_.height - 1) * kRemapUnit;
  return point.x >= 0 && point.y >= 0 && point.x <= last_x && point.y <= last_y;
}

// Returns: the corner of the window that holds the four pixels around each point, or kScattered.
std::uint32_t RemapTable::WindowOf(const FixedPoint* points) const {
  constexpr std::int32_t kNone = std::numeric_limits<std::int32_t>::max();
  if (source_.width < kWindowColumns || source_.height < kWindowRows) return kScattered;
  std::int32_t left = kNone, top = kNone, right = 0, bottom = 0;
  for (std::size_t i = 0; i < kRemapGroup; ++i) {
    if (points[i].x == kNowhere) continue;
    const std::int32_t x = Whole(points[i].x), y = Whole(points[i].y);
    left = std::min(left, x), top = std::min(top, y);
    right = std::max(right, x), bottom = std::max(bottom, y);
  }
  if (left == kNone) return 0;
  left = Corner(left, kWindowColumns, source_.width);
  top = Corner(top, kWindowRows, source_.height);
  const bool fits = left >= 0 && top >= 0 &&
                    right + 1 < left + static_cast<std::int32_t>(kWindowColumns) &&
                    bottom + 1 < top + static_cast<std::int32_t>(kWindowRows);
  if (!fits) return kScattered;
  return static_cast<std::uint32_t>(left) | static_cast<std::uint32_t>(top) << 16U;
}

void RemapTable::AddGroup(const FixedPoint* points) {
  const std::uint32_t window = WindowOf(points);
  const bool is_scattered = window == kScattered;
  groups_.push_back(is_scattered
                        ? kScattered | static_cast<std::uint32_t>(scattered_.size() / kRemapGroup)
                        : window);
  for (std::size_t i = 0; i < kRemapGroup; ++i) {
    const bool nowhere = points[i].x == kNowhere;
    const FixedPoint point = nowhere ? FixedPoint{0, 0} : points[i];
    const std::int32_t x = Whole(point.x), y = Whole(point.y);
    const auto column = x - static_cast<std::int32_t>(window & 0xFFFFU);
    const auto row = y - static_cast<std::int32_t>(window >> 16U);
    const auto place = is_scattered ? 0 : row * static_cast<std::int32_t>(kWindowColumns) + column;
    places_.push_back(nowhere ? kNoSource : static_cast<std::uint8_t>(place));
    fx_.push_back(Fraction(point.x));
    fy_.push_back(Fraction(point.y));
    if (!is_scattered) continue;
    scattered_.push_back({static_cast<std::int16_t>(x), static_cast<std::int16_t>(y)});
  }
}

}  // namespace qx::utils::stereo
