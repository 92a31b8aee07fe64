#include "tools/pictures/picture_writer.h"

#include <sys/uio.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <utility>
#include <vector>

#include "qxtools/ffmpeg_video_decoder.h"
#include "tools/media/ffmpeg.h"
#include "tools/pictures/image_files.h"

namespace qx::tools {
namespace {

using utils::ffmpeg::FrameLayout;

// The samples of a decoded frame in the order of an I420 file: as few pieces as the frame's row
// padding allows, without a copy unless its chroma is interleaved. Where a frame of odd size has
// one chroma column or row less than the file, the last one repeats. Borrows the frame.
class PlanarSamples {
 public:
  explicit PlanarSamples(const velkar::vision::ImageFrame& frame, const FrameLayout& layout);

  const std::vector<iovec>& Pieces() const { return pieces_; }
  std::vector<std::uint8_t> Copy() const;

 private:
  struct Plane {
    const std::uint8_t* data;
    std::size_t pitch, width, height;
  };

  void Append(const std::uint8_t* data, std::size_t size);
  void AppendChroma(const Plane& plane, std::size_t width, std::size_t height);
  Plane Separate(const Plane& interleaved, std::size_t first, std::vector<std::uint8_t>& samples);

  std::vector<iovec> pieces_;
  std::vector<std::uint8_t> separated_[2];  // chroma that was interleaved
};

PlanarSamples::PlanarSamples(const velkar::vision::ImageFrame& frame, const FrameLayout& layout) {
  const auto plane = [&](std::size_t i) {
    const auto& p = layout.planes[i];
    return Plane{frame.Data() + p.offset, p.pitch, p.row_bytes, p.rows};
  };
  const Plane luma = plane(0);
  for (std::size_t y = 0; y < luma.height; ++y) Append(luma.data + y * luma.pitch, luma.width);
  const std::size_t width = (layout.width + 1) / 2;
  const std::size_t height = (layout.height + 1) / 2;
  const bool is_planar = layout.plane_count == 3;
  const std::size_t u = frame.pixel_format == kQXPixelFormatNV21 ? 1 : 0;
  for (std::size_t i = 0; i < 2; ++i) {
    AppendChroma(is_planar ? plane(1 + i) : Separate(plane(1), u ^ i, separated_[i]), width,
                 height);
  }
}

// Pieces that adjoin in memory become one.
void PlanarSamples::Append(const std::uint8_t* data, std::size_t size) {
  if (!pieces_.empty()) {
    iovec& last = pieces_.back();
    if (static_cast<const std::uint8_t*>(last.iov_base) + last.iov_len == data) {
      last.iov_len += size;
      return;
    }
  }
  pieces_.push_back({const_cast<std::uint8_t*>(data), size});
}

void PlanarSamples::AppendChroma(const Plane& plane, std::size_t width, std::size_t height) {
  if (plane.width == 0 || plane.height == 0) {  // a picture too small to have any
    static constexpr std::uint8_t kNoColour = 128;
    for (std::size_t i = 0; i < width * height; ++i) Append(&kNoColour, 1);
    return;
  }
  for (std::size_t y = 0; y < height; ++y) {
    const std::uint8_t* row = plane.data + std::min(y, plane.height - 1) * plane.pitch;
    Append(row, plane.width);
    if (plane.width < width) Append(row + plane.width - 1, 1);
  }
}

// Copies every second sample of a plane, beginning with `first`.
PlanarSamples::Plane PlanarSamples::Separate(const Plane& interleaved, std::size_t first,
                                             std::vector<std::uint8_t>& samples) {
  const Plane plane{nullptr, interleaved.width / 2, interleaved.width / 2, interleaved.height};
  samples.reserve(plane.width * plane.height);
  for (std::size_t y = 0; y < plane.height; ++y) {
    const std::uint8_t* row = interleaved.data + y * interleaved.pitch + first;
    for (std::size_t x = 0; x < plane.width; ++x) samples.push_back(row[2 * x]);
  }
  return {samples.data(), plane.pitch, plane.width, plane.height};
}

std::vector<std::uint8_t> PlanarSamples::Copy() const {
  std::vector<std::uint8_t> samples;
  for (const iovec& piece : pieces_) {
    const auto* bytes = static_cast<const std::uint8_t*>(piece.iov_base);
    samples.insert(samples.end(), bytes, bytes + piece.iov_len);
  }
  return samples;
}

class YuvWriter : public PictureWriter {
 public:
  explicit YuvWriter(OutputFile& file) : file_(file) {}

  void Write(const FramePtr& frame) override {
    file_.Write(PlanarSamples(*frame, *utils::ffmpeg::LayoutOf(frame)).Pieces());
  }

 private:
  OutputFile& file_;
};

class Y4mWriter : public PictureWriter {
 public:
  Y4mWriter(std::string frame_rate, OutputFile& file)
      : frame_rate_(std::move(frame_rate)), file_(file) {}

  void Write(const FramePtr& frame) override {
    const FrameLayout& layout = *utils::ffmpeg::LayoutOf(frame);
    const std::string header = Header(layout);
    if (header_.empty()) {
      header_ = header;
      file_.Write(header.data(), header.size());
    } else if (header != header_) {
      throw std::runtime_error(
          "picture size or range changes in mid-stream, which a .y4m file cannot hold; write .yuv");
    }
    static char mark[] = "FRAME\n";
    const PlanarSamples samples(*frame, layout);
    std::vector<iovec> pieces = {{mark, 6}};
    pieces.insert(pieces.end(), samples.Pieces().begin(), samples.Pieces().end());
    file_.Write(std::move(pieces));
  }

 private:
  std::string Header(const FrameLayout& layout) const {
    return "YUV4MPEG2 W" + std::to_string(layout.width) + " H" + std::to_string(layout.height) +
           " F" + frame_rate_ + " Ip A0:0 C420mpeg2 XYSCSS=420MPEG2 XCOLORRANGE=" +
           (layout.full_range ? "FULL" : "LIMITED") + "\n";
  }

  std::string frame_rate_;
  std::string header_;
  OutputFile& file_;
};

class PngWriter : public PictureWriter {
 public:
  explicit PngWriter(OutputFile& file) : file_(file) {}

  void Write(const FramePtr& frame) override {
    const FrameLayout& layout = *utils::ffmpeg::LayoutOf(frame);
    WritePng(
        ToRgb({static_cast<int>(layout.width), static_cast<int>(layout.height), layout.full_range,
               layout.matrix_coefficients, PlanarSamples(*frame, layout).Copy()}),
        file_);
  }

 private:
  OutputFile& file_;
};

using WriterPtr = std::unique_ptr<PictureWriter>;

WriterPtr MakeYuv(const std::string& /*frame_rate*/, OutputFile& file) {
  return std::make_unique<YuvWriter>(file);
}
WriterPtr MakeY4m(const std::string& frame_rate, OutputFile& file) {
  return std::make_unique<Y4mWriter>(frame_rate, file);
}
WriterPtr MakePng(const std::string& /*frame_rate*/, OutputFile& file) {
  return std::make_unique<PngWriter>(file);
}

}  // namespace

const std::array<PictureFormat, 3> kPictureFormats = {
    {{"yuv", 0, MakeYuv}, {"y4m", 0, MakeY4m}, {"png", 1, MakePng}}};

}  // namespace qx::tools
