#include "qx_utils/stereo/kernels/disparity_map.h"

#include <algorithm>
#include <cstdlib>

#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::utils::stereo {
namespace {

using Run = DisparityScratch::Run;

constexpr MedianVariant kVariants[] = {
#if defined(__x86_64__)
    {"avx2", internal::kCpuAvx2, &kMedianAvx2},
#elif defined(__aarch64__)
    {"neon", internal::kCpuNeon, &kMedianNeon},
#endif
    {"scalar", 0, &kMedianScalar},
};

bool IsMissing(std::uint16_t disparity) { return disparity == kMissing; }

std::size_t RoundUp(std::size_t pixels) {
  return (pixels + kMedianGroup - 1) / kMedianGroup * kMedianGroup;
}

// Takes the medians of row `y` of the padded map for the pixels of `in` that `wanted` names; the
// others keep their values.
template <typename Wanted>
void TakeMedians(MedianGroup median, DisparityScratch& scratch, std::size_t y,
                 const std::uint16_t* in, std::size_t width, std::uint16_t* out, Wanted wanted) {
  const std::uint16_t* const centre = scratch.PaddedRow(y);
  for (std::size_t x = 0; x < width; x += kMedianGroup) {
    const std::size_t end = std::min(x + kMedianGroup, width);
    std::uint16_t medians[kMedianGroup];
    if (std::any_of(in + x, in + end, wanted)) median(centre + x, scratch.pitch(), medians);
    for (std::size_t i = x; i < end; ++i) out[i] = wanted(in[i]) ? medians[i - x] : in[i];
  }
}

// Fills the gaps between the disparities of a row. Returns whether it has any.
bool FillRow(std::uint16_t* row, std::size_t width) {
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
void FillEmptyRows(DisparityScratch& scratch, std::size_t width, std::size_t height) {
  const auto copy_if_empty = [&](std::size_t from, std::size_t to) {
    if (!IsMissing(*scratch.PaddedRow(to))) return;
    std::copy_n(scratch.PaddedRow(from), width, scratch.PaddedRow(to));
  };
  for (std::size_t y = 1; y < height; ++y) copy_if_empty(y - 1, y);
  for (std::size_t y = height - 1; y-- > 0;) copy_if_empty(y + 1, y);
  if (!IsMissing(*scratch.PaddedRow(0))) return;
  for (std::size_t y = 0; y < height; ++y) std::fill_n(scratch.PaddedRow(y), width, 0);
}

bool Continues(std::uint16_t a, std::uint16_t b) {
  return !IsMissing(a) && !IsMissing(b) && std::abs(a - b) <= kSurfaceStep;
}

// The first run of the patch of run `i`. Shortens the way there.
std::uint32_t FirstRun(std::vector<Run>& runs, std::uint32_t i) {
  while (runs[i].parent != i) {
    runs[i].parent = runs[runs[i].parent].parent;
    i = runs[i].parent;
  }
  return i;
}

void Join(std::vector<Run>& runs, std::uint32_t a, std::uint32_t b) {
  a = FirstRun(runs, a);
  b = FirstRun(runs, b);
  if (a == b) return;
  const auto [first, other] = std::minmax(a, b);
  runs[other].parent = first;
  runs[first].pixels += runs[other].pixels;
}

void AppendRuns(const std::uint16_t* row, std::uint32_t width, std::uint32_t y,
                std::vector<Run>& runs) {
  for (std::uint32_t x = 0; x < width;) {
    if (IsMissing(row[x])) {
      ++x;
      continue;
    }
    const std::uint32_t first = x++;
    while (x < width && Continues(row[x - 1], row[x])) ++x;
    const auto index = static_cast<std::uint32_t>(runs.size());
    runs.push_back({first, x, y, index, x - first});
  }
}

// Joins the runs of `row`, from index `here` on, with those of the row above it, from `above` on.
void JoinRows(const std::uint16_t* row, std::size_t width, std::uint32_t above, std::uint32_t here,
              std::vector<Run>& runs) {
  const auto end_above = here;
  const auto end_here = static_cast<std::uint32_t>(runs.size());
  while (above < end_above && here < end_here) {
    const std::uint32_t first = std::max(runs[above].first, runs[here].first);
    const std::uint32_t end = std::min(runs[above].end, runs[here].end);
    for (std::uint32_t x = first; x < end; ++x) {
      if (!Continues(*(row + x - width), row[x])) continue;
      Join(runs, above, here);
      break;
    }
    if (runs[above].end < runs[here].end) {
      ++above;
    } else {
      ++here;
    }
  }
}

}  // namespace

const MedianVariant* MedianVariants(std::size_t* count) {
  *count = sizeof(kVariants) / sizeof(kVariants[0]);
  return kVariants;
}

void DisparityScratch::Pad(std::size_t width, std::size_t height) {
  pitch_ = RoundUp(width) + 2 * kMedianReach;
  padded_.resize(std::max(padded_.size(), pitch_ * (height + 2 * kMedianReach)));
  const auto clear = [this](std::size_t first, std::size_t end) {
    std::fill(padded_.data() + first, padded_.data() + end, kMissing);
  };
  clear(0, kMedianReach * (pitch_ + 1));
  for (std::size_t y = 0; y < height; ++y) {
    const std::size_t row_end = (kMedianReach + y) * pitch_ + kMedianReach + width;
    clear(row_end, row_end + pitch_ - width);
  }
  const std::size_t below = (kMedianReach + height) * pitch_;
  clear(below, below + kMedianReach * pitch_);
}

std::uint16_t* DisparityScratch::PaddedRow(std::size_t y) {
  return padded_.data() + (y + kMedianReach) * pitch_ + kMedianReach;
}

std::vector<Run>& DisparityScratch::Runs(std::size_t pixels) {
  runs_.clear();
  runs_.reserve(pixels);
  return runs_;
}

void MedianFilter(const MedianKernel& kernel, const std::uint16_t* in, std::size_t width,
                  std::size_t height, int radius, DisparityScratch& scratch, std::uint16_t* out) {
  scratch.Pad(width, height);
  const MedianGroup median = radius == 1 ? kernel.square3 : kernel.square5;
#pragma omp parallel
  {
#pragma omp for schedule(static)
    for (std::size_t y = 0; y < height; ++y) {
      std::copy_n(in + y * width, width, scratch.PaddedRow(y));
    }
#pragma omp for schedule(static)
    for (std::size_t y = 0; y < height; ++y) {
      TakeMedians(median, scratch, y, scratch.PaddedRow(y), width, out + y * width,
                  [](std::uint16_t disparity) { return !IsMissing(disparity); });
    }
  }
}

void RemoveSpeckles(std::size_t pixels, std::size_t width, std::size_t height,
                    DisparityScratch& scratch, std::uint16_t* map) {
  std::vector<Run>& runs = scratch.Runs(width * height);
  std::uint32_t above = 0;
  for (std::size_t y = 0; y < height; ++y) {
    const auto here = static_cast<std::uint32_t>(runs.size());
    const std::uint16_t* const row = map + y * width;
    AppendRuns(row, static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(y), runs);
    JoinRows(row, width, above, here, runs);
    above = here;
  }
  for (std::uint32_t i = 0; i < runs.size(); ++i) {
    if (runs[FirstRun(runs, i)].pixels >= pixels) continue;
    std::uint16_t* const row = map + runs[i].y * width;
    std::fill(row + runs[i].first, row + runs[i].end, kMissing);
  }
}

void FillMissing(const MedianKernel& kernel, const std::uint16_t* in, std::size_t width,
                 std::size_t height, DisparityScratch& scratch, std::uint16_t* out) {
  scratch.Pad(width, height);
  bool complete = true;
#pragma omp parallel for schedule(static) reduction(&& : complete)
  for (std::size_t y = 0; y < height; ++y) {
    std::uint16_t* const row = scratch.PaddedRow(y);
    std::copy_n(in + y * width, width, row);
    complete = FillRow(row, width) && complete;
  }
  if (!complete) FillEmptyRows(scratch, width, height);
#pragma omp parallel for schedule(static)
  for (std::size_t y = 0; y < height; ++y) {
    TakeMedians(kernel.square5, scratch, y, in + y * width, width, out + y * width, IsMissing);
  }
}

}  // namespace qx::utils::stereo
