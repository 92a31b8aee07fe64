// The maps of the remapping kernels, made from positions in the source picture.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "qx_utils/stereo/kernels/remap.h"

namespace qx::utils::stereo {

constexpr std::size_t kMaxRemapSize = 32767;  // columns or rows of a source picture

struct PicturePoint {
  double x, y;  // pixels; the centre of the top left one is (0, 0)
};

struct PictureSize {
  std::size_t width, height;
};

// A map that owns its memory: 4.5 bytes a pixel, and 4 more without a window. Never changes, so
// that any number of threads may read it.
class RemapTable {
 public:
  // Inputs:  size       of the result.
  //          source     size of the source picture, 1 x 1 .. kMaxRemapSize x kMaxRemapSize.
  //          source_of  the place in the source that a pixel of the result shows: 1/128 pixel is
  //                     resolved, halves go up. Anywhere outside the source, or NaN, is no source.
  using SourceOf = std::function<PicturePoint(std::size_t x, std::size_t y)>;
  RemapTable(const PictureSize& size, const PictureSize& source, const SourceOf& source_of);

  // Borrowed: as long as the table lives.
  RemapView View() const;

  // Whether the place that pixel (x, y) shows is on the source: within 0 .. width - 1 and
  // 0 .. height - 1 after rounding. Less than one pixel further out, the result fades to black.
  bool IsCovered(std::size_t x, std::size_t y) const { return covered_[y * size_.width + x] != 0; }

 private:
  struct FixedPoint {
    std::int32_t x, y;  // in 1/128 pixel
  };

  FixedPoint Round(const PicturePoint& point) const;
  bool IsOnSource(const FixedPoint& point) const;
  void AddGroup(const FixedPoint* points);
  std::uint32_t WindowOf(const FixedPoint* points) const;

  PictureSize size_, source_;
  std::vector<std::uint32_t> groups_;
  std::vector<std::uint8_t> places_, fx_, fy_;
  std::vector<SourcePosition> scattered_;
  std::vector<std::uint8_t> covered_;
};

}  // namespace qx::utils::stereo
