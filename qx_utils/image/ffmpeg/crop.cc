#include "qx_utils/image/ffmpeg/crop.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <sstream>

#include "qx_utils/image/ffmpeg/failure.h"
#include "qx_utils/image/ffmpeg/planes.h"
#include "qx_utils/image/ffmpeg/scale.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace qx::utils::image::engine {
namespace {

// Columns or rows of a picture, both ends included.
struct Range {
  int first;
  int last;
};

// The pixels of 0 .. size - 1 between two corners, or none. A corner is rounded to the nearest
// pixel, halves upwards. Where a chroma sample spans several pixels the range grows to whole
// samples.
std::optional<Range> RangeOf(float from, float to, int size, int chroma_shift) {
  const double first = std::floor(from + 0.5), last = std::floor(to + 0.5);
  const double end = size - 1;
  if (!(first <= last && first <= end && last >= 0)) return std::nullopt;  // NaN, too
  const int rest = (1 << chroma_shift) - 1;
  const int left = static_cast<int>(std::max(first, 0.0)) & ~rest;
  const int right = static_cast<int>(std::min(last, end)) | rest;
  return Range{left, std::min(right, size - 1)};
}

PictureView Cut(const PictureView& whole, const Range& columns, const Range& rows) {
  PictureView part = RowsOf(whole, rows.first, rows.last - rows.first + 1);
  part.width = columns.last - columns.first + 1;
  const Planes planes = PlanesOf(part);
  for (std::size_t i = 0; i < static_cast<std::size_t>(planes.count); ++i) {
    const int shift = i == 0 ? 0 : av_pix_fmt_desc_get(whole.format)->log2_chroma_w;
    const Plane& plane = planes.plane[i];
    part.data[i] += std::ptrdiff_t{columns.first >> shift} * plane.values * plane.value_bytes;
  }
  return part;
}

std::optional<PictureView> PartOf(const PictureView& whole, const MediaProc::Box& box) {
  const AVPixFmtDescriptor& format = *av_pix_fmt_desc_get(whole.format);
  const auto columns = RangeOf(box.x1, box.x2, whole.width, format.log2_chroma_w);
  const auto rows = RangeOf(box.y1, box.y2, whole.height, format.log2_chroma_h);
  if (!columns || !rows) return std::nullopt;
  return Cut(whole, *columns, *rows);
}

FramePtr CopyOf(const PictureView& part, QXPixelFormat format) {
  FramePtr copy = NewPicture(format, static_cast<std::size_t>(part.width),
                             static_cast<std::size_t>(part.height), part.coding);
  CopySamples(part, ViewOf(copy));
  return copy;
}

// Names the first box without pixels and counts the others.
std::string Refusal(const std::vector<MediaProc::Box>& boxes, const std::vector<FramePtr>& frames,
                    const PictureView& whole) {
  const auto refused = std::count(frames.begin(), frames.end(), nullptr);
  if (refused == 0) return {};
  const auto first = std::find(frames.begin(), frames.end(), nullptr) - frames.begin();
  const MediaProc::Box& box = boxes[static_cast<std::size_t>(first)];
  std::ostringstream line;
  line << "box " << first << " of " << boxes.size() << " (" << box.x1 << ", " << box.y1 << ", "
       << box.x2 << ", " << box.y2 << ") has no pixel of the " << whole.width << " x "
       << whole.height << " picture";
  if (refused > 1) line << "; nor have " << refused - 1 << " more boxes";
  return line.str();
}

}  // namespace

Crops CropPicture(const FramePtr& frame, const std::vector<MediaProc::Box>& boxes,
                  std::size_t width, std::size_t height, bool resize) {
  const PictureView whole = ViewOf(frame);
  Crops crops;
  for (const MediaProc::Box& box : boxes) {
    const std::optional<PictureView> part = PartOf(whole, box);
    FramePtr cropped;
    if (part && resize) cropped = ScaledPicture(*part, frame->pixel_format, width, height);
    if (part && !resize) cropped = CopyOf(*part, frame->pixel_format);
    crops.frames.push_back(std::move(cropped));
  }
  crops.refusal = Refusal(boxes, crops.frames, whole);
  return crops;
}

}  // namespace qx::utils::image::engine
