#include "tools/pictures/picture_writer.h"

#include <sys/uio.h>

#include <stdexcept>
#include <utility>
#include <vector>

#include "qxtools/ffmpeg_video_decoder.h"
#include "tools/media/decoded_picture.h"
#include "tools/pictures/image_files.h"

namespace qx::tools {
namespace {

using utils::ffmpeg::FrameLayout;

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

  void Write(const FramePtr& frame) override { WritePng(RgbOf(frame), file_); }

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
