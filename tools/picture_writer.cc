#include "tools/picture_writer.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include "tools/png_writer.h"

namespace qx::tools {
namespace {

class YuvWriter : public PictureWriter {
 public:
  explicit YuvWriter(OutputFile& file) : file_(file) {}
  void Write(const PlanarPicture& picture) override { file_.Write(picture.Pieces()); }

 private:
  OutputFile& file_;
};

class Y4mWriter : public PictureWriter {
 public:
  Y4mWriter(std::string frame_rate, OutputFile& file)
      : frame_rate_(std::move(frame_rate)), file_(file) {}

  void Write(const PlanarPicture& picture) override {
    const std::string header = Header(picture);
    if (header_.empty()) {
      header_ = header;
      file_.Write(header.data(), header.size());
    } else if (header != header_) {
      throw std::runtime_error(
          "picture size or range changes in mid-stream, which a .y4m file cannot hold; write .yuv");
    }
    static char mark[] = "FRAME\n";
    std::vector<iovec> pieces = {{mark, 6}};
    pieces.insert(pieces.end(), picture.Pieces().begin(), picture.Pieces().end());
    file_.Write(std::move(pieces));
  }

 private:
  std::string Header(const PlanarPicture& picture) const {
    return "YUV4MPEG2 W" + std::to_string(picture.Width()) + " H" +
           std::to_string(picture.Height()) + " F" + frame_rate_ +
           " Ip A0:0 C420mpeg2 XYSCSS=420MPEG2 XCOLORRANGE=" +
           (picture.FullRange() ? "FULL" : "LIMITED") + "\n";
  }

  std::string frame_rate_;
  std::string header_;
  OutputFile& file_;
};

class PngWriter : public PictureWriter {
 public:
  explicit PngWriter(OutputFile& file) : file_(file) {}
  void Write(const PlanarPicture& picture) override {
    WritePng(file_, picture.Width(), picture.Height(), ToRgb(picture).data());
  }

 private:
  OutputFile& file_;
};

}  // namespace

std::unique_ptr<PictureWriter> MakePictureWriter(const std::string& format,
                                                 const std::string& frame_rate, OutputFile& file) {
  if (format == "png") return std::make_unique<PngWriter>(file);
  if (format == "y4m") return std::make_unique<Y4mWriter>(frame_rate, file);
  return std::make_unique<YuvWriter>(file);
}

}  // namespace qx::tools
