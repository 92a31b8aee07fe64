#include "qx_utils/stereo/interim.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

namespace qx::utils::stereo {
namespace {

using Cost = std::int16_t;

// The largest byte: costs are never negative, whatever was rounded.
constexpr int kNoCost = 127;
constexpr Cost kUnknownCost = kNoCost - kPerfectMatch / 2;

// What a path pays when the disparity changes by one pixel (a slanted surface) and by more (from
// one object to another), in units of a cost; a perfect match is about 120 better than none.
constexpr int kEdge = 20;  // difference of grey values that halves the price of a jump

// Stands beside the first and the last disparity: no path comes from there.
constexpr Cost kNowhere = 16000;

Cost JumpCost(int jump, int grey, int grey_before) {
  const int price = jump * kEdge / (kEdge + std::abs(grey - grey_before));
  return static_cast<Cost>(std::max(price, jump / 5));
}

// Costs of the paths that end at each pixel of a row, all from one direction.
class PathRow {
 public:
  PathRow(int width, int disparities)
      : disparities_(disparities),
        costs_(static_cast<std::size_t>(width) * Pitch(), kNowhere),
        cheapest_(static_cast<std::size_t>(width)) {}

  Cost* At(int x) { return costs_.data() + static_cast<std::size_t>(x) * Pitch() + 1; }
  Cost& Cheapest(int x) { return cheapest_[static_cast<std::size_t>(x)]; }

  // A path may begin at the next pixel: what lies before it costs nothing.
  void Begin(int x) {
    std::fill_n(At(x), disparities_, Cost{0});
    Cheapest(x) = 0;
  }

 private:
  std::size_t Pitch() const { return static_cast<std::size_t>(disparities_) + 2; }

  int disparities_;
  std::vector<Cost> costs_;
  std::vector<Cost> cheapest_;
};

// By value, unlike std::min: compilers turn it into a vector instruction.
inline Cost Smaller(Cost a, Cost b) { return a < b ? a : b; }

// Extends the paths that end at `before` by a pixel with matching costs `match`: writes the costs
// of the longer paths to `path` and adds them to `sum`. The cheapest path before is subtracted,
// which changes no decision and keeps the numbers small. Returns: the cheapest of `path`.
Cost Extend(const Cost* match, const Cost* before, Cost cheapest_before, Cost slant, Cost jump,
            int disparities, Cost* path, Cost* sum) {
  const Cost any = static_cast<Cost>(cheapest_before + jump);
  Cost cheapest = kNowhere;
#pragma omp simd reduction(min : cheapest)
  for (int d = 0; d < disparities; ++d) {
    const Cost slanted = static_cast<Cost>(Smaller(before[d - 1], before[d + 1]) + slant);
    const Cost best = Smaller(Smaller(before[d], slanted), any);
    const Cost cost = static_cast<Cost>(match[d] + best - cheapest_before);
    path[d] = cost;
    sum[d] = static_cast<Cost>(sum[d] + cost);
    cheapest = Smaller(cheapest, cost);
  }
  return cheapest;
}

// Turns the correlations of the pixel in column x into costs.
void MatchCosts(const std::int8_t* correlation, int x, int first, int disparities, Cost* match) {
  const int inside = std::clamp(x + 1 - first, 0, disparities);
#pragma omp simd
  for (int d = 0; d < inside; ++d) match[d] = static_cast<Cost>(kNoCost - correlation[d]);
  std::fill(match + inside, match + disparities, kUnknownCost);
}

// The paths within row `y`, in both directions. They come first and overwrite the sums.
void AddRowPaths(const Volume<const std::int8_t>& correlation, const Guide& left, int y,
                 const Volume<Cost>& sums) {
  const int width = correlation.width;
  const int disparities = correlation.disparities;
  const std::uint8_t* grey = left.Row(y);
  std::vector<Cost> match(static_cast<std::size_t>(disparities));
  PathRow path(2, disparities);  // the pixel before and this one, in turns
  std::fill_n(sums.At(0, y), static_cast<std::size_t>(width) * match.size(), Cost{0});
  for (const int step : {1, -1}) {
    int x = step > 0 ? 0 : width - 1;
    path.Begin(0);
    for (int n = 0, before = x; n < width; ++n, before = x, x += step) {
      MatchCosts(correlation.At(x, y), x, correlation.first, disparities, match.data());
      const int from = n % 2, to = 1 - from;
      path.Cheapest(to) = Extend(
          match.data(), path.At(from), path.Cheapest(from), static_cast<Cost>(left.slant),
          JumpCost(left.jump, grey[x], grey[before]), disparities, path.At(to), sums.At(x, y));
    }
  }
}

// The vertical and the two diagonal paths that run downwards (step 1) or upwards (step -1).
class ColumnPaths {
 public:
  ColumnPaths(const Volume<const std::int8_t>& correlation, const Guide& left, int step,
              const Volume<Cost>& sums)
      : correlation_(correlation),
        left_(left),
        step_(step),
        sums_(sums),
        match_(static_cast<std::size_t>(Disparities())),
        start_(1, Disparities()) {
    start_.Begin(0);
    for (auto& rows : rows_) {
      for (int i = 0; i < kDirections; ++i) rows.emplace_back(correlation.width, Disparities());
    }
  }

  // Goes on by `rows` rows.
  void Run(int rows) {
    for (; rows > 0; --rows, ++done_) {
      ExtendRow(step_ > 0 ? done_ : correlation_.height - 1 - done_);
      std::swap(rows_[0], rows_[1]);
    }
  }

 private:
  static constexpr int kDirections = 3;  // from the left, the middle and the right before

  int Disparities() const { return correlation_.disparities; }

  void ExtendRow(int y) {
    for (int x = 0; x < correlation_.width; ++x) {
      MatchCosts(correlation_.At(x, y), x, correlation_.first, Disparities(), match_.data());
      for (int i = 0; i < kDirections; ++i) ExtendPixel(x, y, i);
    }
  }

  void ExtendPixel(int x, int y, int direction) {
    const int from_x = x + direction - 1;
    const bool begins = done_ == 0 || from_x < 0 || from_x >= correlation_.width;
    PathRow& before = begins ? start_ : rows_[0][static_cast<std::size_t>(direction)];
    PathRow& path = rows_[1][static_cast<std::size_t>(direction)];
    const int from = begins ? 0 : from_x;
    const Cost jump = begins ? static_cast<Cost>(left_.jump)
                             : JumpCost(left_.jump, left_.Row(y)[x], left_.Row(y - step_)[from_x]);
    path.Cheapest(x) =
        Extend(match_.data(), before.At(from), before.Cheapest(from),
               static_cast<Cost>(left_.slant), jump, Disparities(), path.At(x), sums_.At(x, y));
  }

  const Volume<const std::int8_t>& correlation_;
  const Guide& left_;
  const int step_;
  const Volume<Cost>& sums_;
  int done_ = 0;  // rows
  std::vector<Cost> match_;
  PathRow start_;
  std::array<std::vector<PathRow>, 2> rows_;  // the row before, this row; one for each direction
};

// Runs both at once. They meet in the middle of the picture and part again, so at no time do they
// add to the same row: all the threads ever have to do is to wait for each other there.
void RunBoth(ColumnPaths& down, ColumnPaths& up, int rows) {
#pragma omp parallel sections
  {
#pragma omp section
    down.Run(rows);
#pragma omp section
    up.Run(rows);
  }
}

}  // namespace

void SumPathCosts(const Volume<const std::int8_t>& correlation, const Guide& left,
                  const Volume<std::int16_t>& sums) {
#pragma omp parallel for schedule(static)
  for (int y = 0; y < correlation.height; ++y) AddRowPaths(correlation, left, y, sums);
  ColumnPaths down(correlation, left, 1, sums);
  ColumnPaths up(correlation, left, -1, sums);
  const int half = correlation.height / 2;
  const int middle = correlation.height % 2;
  RunBoth(down, up, half);
  down.Run(middle);
  up.Run(middle);
  RunBoth(down, up, half);
}

}  // namespace qx::utils::stereo
