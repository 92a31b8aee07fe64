#include "qx_utils/image/ffmpeg/swscale.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>

#include "qx_utils/image/ffmpeg/failure.h"
#include "qx_utils/image/ffmpeg/pixel_order.h"
#include "qx_utils/image/ffmpeg/planes.h"
#include "qx_utils/image/ffmpeg/scaler_cache.h"
#include "qx_utils/image/kernels/pixel_rows.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

namespace qx::utils::image::engine {
namespace {

// As far as libswscale reads or writes past the end of a row, and more than its widest vectors.
constexpr int kOverrun = 128;
constexpr int kVectorBytes = 64;

// A picture of our own, aligned and with room after each row.
class PaddedPicture {
 public:
  PaddedPicture(AVPixelFormat format, int width, int height) {
    view_.format = format;
    view_.width = width;
    view_.height = height;
    const int bytes = av_image_alloc(view_.data.data(), view_.pitch.data(), width + kOverrun,
                                     height, format, kVectorBytes);
    if (bytes < 0) throw std::bad_alloc();
  }
  ~PaddedPicture() { av_free(view_.data[0]); }
  PaddedPicture(const PaddedPicture&) = delete;
  PaddedPicture& operator=(const PaddedPicture&) = delete;

  const PictureView& view() const { return view_; }

 private:
  PictureView view_;
};

// Passes `rows`, which begin at row `first` of the source, to the scaler. It writes all rows of
// `target` that it can compute by now.
void Feed(SwsContext* scaler, const PictureView& rows, int first, const PictureView& target) {
  Check(sws_scale(scaler, rows.data.data(), rows.pitch.data(), first, rows.height,
                  target.data.data(), target.pitch.data()),
        "sws_scale");
}

// Returns: how many of the picture's first rows can be read past their ends, because enough of
//          the picture follows. Even, for the sake of chroma.
int RowsWithRoom(const PictureView& picture) {
  int pitch = kOverrun;
  for (const Plane& plane : PlanesOf(picture)) {
    pitch = std::min(pitch, std::abs(static_cast<int>(plane.pitch)));
  }
  const int last_rows = 2 * ((kOverrun + pitch - 1) / pitch);
  return std::max(picture.height - last_rows, 0) / 2 * 2;
}

void FeedAll(SwsContext* scaler, const PictureView& source, const PictureView& target) {
  const int rows = RowsWithRoom(source);
  if (rows > 0) Feed(scaler, RowsOf(source, 0, rows), 0, target);
  const PictureView last = RowsOf(source, rows, source.height - rows);
  const PaddedPicture copy(source.format, source.width, last.height);
  CopySamples(last, copy.view());
  Feed(scaler, copy.view(), rows, target);
}

// Whether what is written past the end of a row is overwritten later, or past the last plane.
bool CanWriteRowsOf(const PictureView& target) {
  const Planes planes = PlanesOf(target);
  const auto has_room = [](const Plane& plane) {
    const std::ptrdiff_t vectors = (plane.RowBytes() + kVectorBytes - 1) / kVectorBytes;
    return plane.pitch >= vectors * kVectorBytes;
  };
  return planes.count == 1 || std::all_of(planes.begin(), planes.end(), has_room);
}

void ScalePlanes(const PictureView& source, const PictureView& target, int flags) {
  SwsContext* const scaler = ScalerFor(source, target, flags);
  if (CanWriteRowsOf(target)) return FeedAll(scaler, source, target);
  const PaddedPicture scaled(target.format, target.width, target.height);
  FeedAll(scaler, source, scaled.view());
  CopySamples(scaled.view(), target);
}

// libswscale scales packed pixels as YUV with coarser chroma, slowly. Planes of 4:4:4 keep the
// channels apart, whatever they are called, and scale as fast as grey pictures do.
AVPixelFormat PlanarFormat(const PixelOrder& order) {
  return order.channels == 4 ? AV_PIX_FMT_YUVA444P : AV_PIX_FMT_YUV444P;
}

ChannelRows RowOf(const PictureView& planes, int y) {
  ChannelRows rows{};
  for (std::size_t i = 0; i < planes.data.size(); ++i) {
    if (planes.data[i] != nullptr)
      rows.row[i] = planes.data[i] + std::ptrdiff_t{y} * planes.pitch[i];
  }
  return rows;
}

PictureView SplitRows(const PictureView& source, int first, const PixelOrder& order,
                      const PictureView& strip) {
  const PixelRowsKernel& kernel = ActivePixelRows();
  const auto split = order.channels == 4 ? kernel.split4 : kernel.split3;
  const PictureView packed = RowsOf(source, first, std::min(strip.height, source.height - first));
  for (int y = 0; y < packed.height; ++y) {
    split(packed.data[0] + std::ptrdiff_t{y} * packed.pitch[0],
          static_cast<std::size_t>(source.width), RowOf(strip, y));
  }
  return RowsOf(strip, 0, packed.height);
}

void MergeRows(const PictureView& planes, const PixelOrder& order, const PictureView& target) {
  const PixelRowsKernel& kernel = ActivePixelRows();
  const auto merge = order.channels == 4 ? kernel.merge4 : kernel.merge3;
  for (int y = 0; y < target.height; ++y) {
    merge(RowOf(planes, y), static_cast<std::size_t>(target.width),
          target.data[0] + std::ptrdiff_t{y} * target.pitch[0]);
  }
}

void ScaleChannels(const PictureView& source, const PictureView& target, const PixelOrder& order,
                   int flags) {
  constexpr int kStripRows = 16;  // stay in the caches until they are scaled
  const AVPixelFormat format = PlanarFormat(order);
  const PaddedPicture strip(format, source.width, std::min(kStripRows, source.height));
  const PaddedPicture scaled(format, target.width, target.height);
  PictureView planar_source = source;
  planar_source.format = format;
  SwsContext* const scaler = ScalerFor(planar_source, scaled.view(), flags);
  for (int y = 0; y < source.height; y += kStripRows) {
    Feed(scaler, SplitRows(source, y, order, strip.view()), y, scaled.view());
  }
  MergeRows(scaled.view(), order, target);
}

// libswscale converts some pairs in several steps, for which it wants the whole picture.
void ConvertWhole(const PictureView& source, const PictureView& target, int flags) {
  std::optional<PaddedPicture> copy;
  if (!source.padded) {
    copy.emplace(source.format, source.width, source.height);
    CopySamples(source, copy->view());
  }
  SwsContext* const scaler = ScalerFor(source, target, flags);
  if (CanWriteRowsOf(target)) return Feed(scaler, copy ? copy->view() : source, 0, target);
  const PaddedPicture converted(target.format, target.width, target.height);
  Feed(scaler, copy ? copy->view() : source, 0, converted.view());
  CopySamples(converted.view(), target);
}

}  // namespace

void ScaleInto(const PictureView& source, const PictureView& target, int flags) {
  const bool same_coding = source.coding.full_range == target.coding.full_range &&
                           source.coding.matrix == target.coding.matrix;
  if (source.format != target.format || !same_coding) return ConvertWhole(source, target, flags);
  const PixelOrder* const order = PixelOrderOf(source.format);
  if (order == nullptr) return ScalePlanes(source, target, flags);
  ScaleChannels(source, target, *order, flags);
}

}  // namespace qx::utils::image::engine
