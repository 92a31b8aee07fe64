#include "tools/stereo_source.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include "qxtools/ffmpeg_video_decoder.h"
#include "tools/messages.h"
#include "tools/video_reader.h"

namespace qx::tools {
namespace {

class PictureFile : public PictureSource {
 public:
  explicit PictureFile(const std::string& path) : picture_(ReadPicture(path)) {}

  std::optional<GrayPicture> Next() override { return std::exchange(picture_, std::nullopt); }

 private:
  std::optional<GrayPicture> picture_;
};

// Luma of a decoded frame, without the decoder's row padding.
GrayPicture Luma(const std::shared_ptr<velkar::vision::ImageFrame>& frame) {
  const utils::ffmpeg::FrameLayout& layout = *utils::ffmpeg::LayoutOf(frame);
  const utils::ffmpeg::FrameLayout::Plane& plane = layout.planes[0];
  GrayPicture picture;
  picture.width = static_cast<int>(layout.width);
  picture.height = static_cast<int>(layout.height);
  picture.luma.reserve(std::size_t{layout.width} * layout.height);
  for (std::size_t y = 0; y < layout.height; ++y) {
    const std::uint8_t* row = frame->Data() + plane.offset + y * plane.pitch;
    picture.luma.insert(picture.luma.end(), row, row + layout.width);
  }
  return picture;
}

std::string SizeText(const GrayPicture& picture) {
  return std::to_string(picture.width) + " x " + std::to_string(picture.height);
}

class VideoStream : public PictureSource {
 public:
  explicit VideoStream(const std::string& name) : name_(name), reader_(name) {}

  std::optional<GrayPicture> Next() override {
    const auto frame = reader_.Next();
    // A lost picture would pair all later ones with the other eye's wrong moment.
    if (reader_.DamagedPackets() > 0) throw std::runtime_error("'" + name_ + "': damaged packet");
    if (frame) return Luma(frame);
    if (IsUrl(name_) && !reader_.Fault().empty()) {
      throw std::runtime_error("'" + name_ + "': " + reader_.Fault());
    }
    return std::nullopt;
  }

  std::size_t DamagedPictures() const override { return reader_.DamagedPictures(); }

 private:
  std::string name_;
  VideoReader reader_;
};

}  // namespace

std::unique_ptr<PictureSource> OpenPictureSource(const std::string& input) {
  if (IsPictureFile(input)) return std::make_unique<PictureFile>(input);
  return std::make_unique<VideoStream>(input);
}

PairReader::PairReader(const std::string& left, const std::string& right, std::size_t pairs)
    : left_{left, OpenPictureSource(left)},
      right_{right, OpenPictureSource(right)},
      pairs_(pairs) {}

std::optional<PicturePair> PairReader::Next() {
  if (pairs_ != 0 && count_ == pairs_) return std::nullopt;
  std::optional<GrayPicture> left = left_.source->Next();
  std::optional<GrayPicture> right = right_.source->Next();
  const bool may_end = pairs_ == 0 && count_ > 0;
  if (!left && !right && may_end) return std::nullopt;
  if (!left) FailEnded(left_);
  if (!right) FailEnded(right_);
  if (left->width != right->width || left->height != right->height) {
    throw std::runtime_error("the pictures differ in size: '" + left_.name + "' is " +
                             SizeText(*left) + ", '" + right_.name + "' is " + SizeText(*right) +
                             " in frame " + std::to_string(count_));
  }
  ++count_;
  return PicturePair{std::move(*left), std::move(*right)};
}

void PairReader::ReportDamage() const {
  for (const Input* input : {&left_, &right_}) {
    const std::size_t damaged = input->source->DamagedPictures();
    if (damaged > 0) PrintDamage(input->name, damaged, count_);
  }
}

void PairReader::FailEnded(const Input& input) const {
  const std::string wanted =
      pairs_ == 0 ? "the other input goes on" : "asked for are " + std::to_string(pairs_);
  throw std::runtime_error("'" + input.name + "' ends after " + tools::Count(count_, "frame") +
                           ": " + wanted);
}

}  // namespace qx::tools
