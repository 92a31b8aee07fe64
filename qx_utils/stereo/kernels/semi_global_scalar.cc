// The definition of semi-global matching, one value at a time.
#include "qx_utils/stereo/kernels/semi_global_rows.h"

namespace qx::utils::stereo {
namespace {

int Smaller(int a, int b) { return a < b ? a : b; }
int Distance(int a, int b) { return a < b ? b - a : a - b; }
std::uint8_t Average(int a, int b) { return static_cast<std::uint8_t>((a + b + 1) / 2); }

int Cost(const SemiGlobalPlan& plan, const PassRow& row, std::size_t x, std::size_t d) {
  if (d + plan.first_disparity > x) return plan.unknown_cost;
  const int cost = (128 - row.correlation[x * plan.disparities + d]) / 2;
  return Smaller(cost, plan.limit);
}

int Price(const SemiGlobalPlan& plan, int grey, int grey_before) {
  const auto step = static_cast<std::size_t>(Distance(grey, grey_before)) / kGreyPerPrice;
  return plan.prices[step < kJumpPrices ? step : kJumpPrices - 1];
}

// Extends the paths in `path`, whose minimum is `minimum`, in place by a pixel.
// Returns: the new minimum.
std::uint8_t Extend(const SemiGlobalPlan& plan, const std::uint8_t* cost, int minimum, int price,
                    std::uint8_t* path) {
  std::uint8_t smallest = 255;
  int before = 255;  // path[d - 1] before it was extended
  for (std::size_t d = 0; d < plan.disparities; ++d) {
    const int next = d + 1 < plan.disparities ? path[d + 1] : 255;
    const int best = Smaller(path[d], Smaller(before, next) + plan.slant);
    before = path[d];
    path[d] = static_cast<std::uint8_t>(cost[d] + Smaller(best, minimum + price) - minimum);
    if (path[d] < smallest) smallest = path[d];
  }
  return smallest;
}

// The paths that end at a pixel of a row, the horizontal one first, and the prices of a jump.
struct Paths {
  std::uint8_t* costs[1 + kRowPaths];
  int minima[1 + kRowPaths];
  int prices[1 + kRowPaths];
};

int MinimumOf(const PathMinima& minima, std::size_t path) {
  return reinterpret_cast<const std::uint8_t*>(&minima)[path];
}

Paths PathsTo(const SemiGlobalPlan& plan, const PassRow& row, std::size_t x) {
  const std::size_t turn = row.number % plan.slots;
  const std::size_t slots[] = {x + plan.slots - turn, x, x + turn};
  const int grey = row.grey[x];
  Paths paths{};
  paths.costs[0] = row.horizontal;
  paths.minima[0] = MinimumOf(*(row.minima + x - row.step), 0);
  paths.prices[0] = Price(plan, grey, *(row.grey + x - row.step));
  for (std::size_t k = 0; k < kRowPaths; ++k) {
    paths.costs[1 + k] = row.paths[k] + slots[k] % plan.slots * plan.pitch;
    paths.minima[1 + k] = MinimumOf(*(row.minima_before + x + k - 1), 1 + k);
    paths.prices[1 + k] = Price(plan, grey, *(row.grey_before + x + k - 1));
  }
  return paths;
}

void ExtendPixel(const SemiGlobalPlan& plan, const PassRow& row, std::size_t x) {
  std::uint8_t cost[256];
  for (std::size_t d = 0; d < plan.disparities; ++d) {
    cost[d] = static_cast<std::uint8_t>(Cost(plan, row, x, d));
  }
  const Paths paths = PathsTo(plan, row, x);
  for (std::size_t p = 0; p <= kRowPaths; ++p) {
    if (plan.paths == 4 && p % 2 == 1) continue;  // the diagonals
    reinterpret_cast<std::uint8_t*>(row.minima + x)[p] =
        Extend(plan, cost, paths.minima[p], paths.prices[p], paths.costs[p]);
  }
  for (std::size_t d = 0; d < plan.disparities; ++d) {
    int half = Average(paths.costs[0][d], paths.costs[2][d]);
    if (plan.paths == 8) half = Average(half, Average(paths.costs[1][d], paths.costs[3][d]));
    std::uint8_t& stored = row.halves[x * plan.cells + d];
    if (row.sums == nullptr) {
      stored = static_cast<std::uint8_t>(half);
    } else {
      row.sums[x * plan.pitch + d] = static_cast<std::uint8_t>(Smaller(half + stored, 255));
    }
  }
}

void ExtendColumns(const SemiGlobalPlan& plan, const PassRow& row, std::size_t first,
                   std::size_t end) {
  for (std::size_t n = 0; n < end - first; ++n) {
    ExtendPixel(plan, row, row.step > 0 ? first + n : end - 1 - n);
  }
}

// The smallest of the right pixel's sums that left pixel x meets at disparity d.
int RightMinimum(const SemiGlobalPlan& plan, const SelectionRow& row, std::size_t x,
                 std::size_t d) {
  int smallest = 255;
  for (std::size_t other = 0; other < plan.disparities; ++other) {
    if (x + other < d || x + other - d >= plan.width) continue;
    smallest = Smaller(smallest, row.sums[(x + other - d) * plan.pitch + other]);
  }
  return smallest;
}

// True if the right pixel prefers d, or d - 1 or d + 1.
bool Consistent(const SemiGlobalPlan& plan, const SelectionRow& row, std::size_t x, std::size_t d) {
  const std::uint8_t* const sum = row.sums + x * plan.pitch + d;
  const int smallest = RightMinimum(plan, row, x, d);
  if (*sum == smallest) return true;
  if (d > 0 && x > 0 && *(sum - plan.pitch - 1) == smallest) return true;
  return d + 1 < plan.disparities && x + 1 < plan.width && *(sum + plan.pitch + 1) == smallest;
}

// The lowest point of the parabola through the sums at d - 1, d and d + 1, less d, times 256.
int Fraction(const SemiGlobalPlan& plan, const std::uint8_t* sum, std::size_t d) {
  if (d == 0 || d + 1 == plan.disparities) return 0;
  const int curvature = sum[d - 1] + sum[d + 1] - 2 * sum[d];
  if (curvature == 0) return 0;
  // Rounded to the nearest integer, ties upwards; 128 more keeps the division above zero.
  return (256 * (sum[d - 1] - sum[d + 1]) + 257 * curvature) / (2 * curvature) - 128;
}

// How much better the best sum is than the best of those that are not its neighbours.
std::uint8_t Confidence(const SemiGlobalPlan& plan, const std::uint8_t* sum, std::size_t best) {
  int second = 255;
  for (std::size_t d = 0; d < plan.disparities; ++d) {
    if (d + 1 < best || d > best + 1) second = Smaller(second, sum[d]);
  }
  if (second == 0) return 1;
  return static_cast<std::uint8_t>(1 + 254 * (second - Smaller(second, sum[best])) / second);
}

void SelectRow(const SemiGlobalPlan& plan, const SelectionRow& row) {
  for (std::size_t x = 0; x < plan.width; ++x) {
    const std::uint8_t* const sum = row.sums + x * plan.pitch;
    std::size_t best = 0;
    for (std::size_t d = 1; d < plan.disparities; ++d) {
      if (sum[d] < sum[best]) best = d;
    }
    const std::size_t disparity = best + plan.first_disparity;
    const bool found = sum[best] < 255 && disparity <= x && Consistent(plan, row, x, best);
    const int refined = static_cast<int>(disparity) * 256 + Fraction(plan, sum, best);
    row.disparity[x] = found ? static_cast<std::uint16_t>(refined) : kNoMatch;
    if (row.confidence != nullptr) row.confidence[x] = found ? Confidence(plan, sum, best) : 0;
  }
}

std::size_t CellsOf(std::size_t disparities) { return disparities; }

}  // namespace

const SemiGlobalKernel kSemiGlobalScalar = {1, CellsOf, ExtendColumns, SelectRow};

}  // namespace qx::utils::stereo
