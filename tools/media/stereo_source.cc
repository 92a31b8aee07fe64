#include "tools/media/stereo_source.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "qxtools/ffmpeg_video_decoder.h"
#include "tools/console/messages.h"
#include "tools/media/decoded_picture.h"
#include "tools/media/ffmpeg.h"
#include "tools/media/video_input.h"

namespace qx::tools {
namespace {

// How picture files start.
struct Signature {
  std::size_t at;
  std::string_view bytes;
  const char* unreadable;  // the format's name if it is one that cannot be read
};
using namespace std::string_view_literals;
constexpr Signature kSignatures[] = {
    {0, "\x89PNG"sv, nullptr}, {0, "\xFF\xD8\xFF"sv, nullptr},                           // JPEG
    {0, "BM"sv, nullptr},      {0, "II*\0"sv, nullptr},        {0, "MM\0*"sv, nullptr},  // TIFF
    {8, "WEBP"sv, nullptr},    {0, "GIF8"sv, "GIF"},           {4, "ftypavif"sv, "AVIF"},
    {4, "ftypheic"sv, "HEIF"}};

// Errors: std::runtime_error when the file starts like a picture that ReadPicture() cannot read.
bool IsPictureFile(const std::string& path) {
  std::array<char, 12> start = {};
  std::ifstream(path, std::ios::binary).read(start.data(), start.size());
  const std::string text(start.begin(), start.end());
  const auto is = [&text](const Signature& s) {
    return text.compare(s.at, s.bytes.size(), s.bytes) == 0;
  };
  const auto found = std::find_if(std::begin(kSignatures), std::end(kSignatures), is);
  // Netpbm: grey or colour, as text or bytes.
  const bool is_netpbm =
      text[0] == 'P' && "2356"sv.find(text[1]) != std::string_view::npos && text[2] <= ' ';
  if (found == std::end(kSignatures)) return is_netpbm;
  if (found->unreadable != nullptr) {
    throw std::runtime_error(
        "'" + path + "': " + found->unreadable +
        " pictures cannot be read; PNG, JPEG, PGM, PPM, BMP, TIFF and WebP can");
  }
  return true;
}

// Returns: a frame of kQXPixelFormatGray8 or kQXPixelFormatRGB888 that owns the picture.
template <typename T>
FramePtr FrameOf(Image<T> picture) {
  const auto owner = std::make_shared<std::vector<T>>(std::move(picture.values));
  const auto format = sizeof(T) == 3 ? kQXPixelFormatRGB888 : kQXPixelFormatGray8;
  return velkar::vision::ImageFrameImpl::Create(
      format, reinterpret_cast<std::uint8_t*>(owner->data()),
      static_cast<std::uint32_t>(picture.height), static_cast<std::uint32_t>(picture.width),
      sizeof(T), owner);
}

// Copies `width` columns of rows that lie `pitch` bytes apart.
template <typename T>
FramePtr CopyOf(const std::uint8_t* first, std::size_t pitch, std::uint32_t width,
                std::uint32_t height) {
  Image<T> copy(static_cast<int>(width), static_cast<int>(height));
  for (std::uint32_t y = 0; y < height; ++y) {
    std::copy_n(reinterpret_cast<const T*>(first + y * pitch), width,
                copy.Row(static_cast<int>(y)));
  }
  return FrameOf(std::move(copy));
}

class PictureFile : public PictureSource {
 public:
  explicit PictureFile(const std::string& path)
      : path_(path), picture_(FrameOf(ReadPicture(path))) {}

  FramePtr Next() override { return std::exchange(picture_, nullptr); }

  FramePtr Colours() override {
    auto colours = ReadColours(path_);
    return colours.values.empty() ? nullptr : FrameOf(std::move(colours));
  }

 private:
  std::string path_;
  FramePtr picture_;
};

class VideoStream : public PictureSource {
 public:
  explicit VideoStream(const std::string& name) : name_(name), reader_(name) {}

  FramePtr Next() override {
    FramePtr frame = reader_.Next();
    // If a picture is lost, all later ones would be paired with the other view of another moment.
    if (reader_.DamagedPackets() > 0) throw std::runtime_error("'" + name_ + "': damaged packet");
    if (!frame && IsUrl(name_) && !reader_.Fault().empty()) {
      throw std::runtime_error("'" + name_ + "': " + reader_.Fault());
    }
    return last_ = frame;
  }

  FramePtr Colours() override { return FrameOf(RgbOf(last_)); }

  std::size_t DamagedPictures() const override { return reader_.DamagedPictures(); }
  std::size_t Expected() const override { return reader_.ExpectedPictures(); }
  void Cancel() override { reader_.Cancel(); }

 private:
  std::string name_;
  VideoReader reader_;
  FramePtr last_;
};

std::string SizeText(const LumaView& picture) {
  return std::to_string(picture.width) + " x " + std::to_string(picture.height);
}

}  // namespace

LumaView::LumaView(const FramePtr& frame)
    : data(frame->Data()), pitch(frame->Width()), width(frame->Width()), height(frame->Height()) {
  if (const utils::ffmpeg::FrameLayout* const layout = utils::ffmpeg::LayoutOf(frame)) {
    data += layout->planes[0].offset;
    pitch = layout->planes[0].pitch;
    width = layout->width;
    height = layout->height;
  }
}

std::unique_ptr<PictureSource> OpenPictureSource(const std::string& input) {
  if (IsPictureFile(input)) return std::make_unique<PictureFile>(input);
  return std::make_unique<VideoStream>(input);
}

PairReader::PairReader(const std::string& left, const std::string& right, std::size_t pairs,
                       Colours colours)
    : left_{left, OpenPictureSource(left)},
      right_{right, right.empty() ? nullptr : OpenPictureSource(right)},
      pairs_(pairs),
      colours_(colours) {}

std::optional<PicturePair> PairReader::Next() {
  if (pairs_ != 0 && count_ == pairs_) return std::nullopt;
  FramePtr left = left_.source->Next();
  FramePtr right = right_.source ? right_.source->Next() : left;
  const bool may_end = pairs_ == 0 && count_ > 0;
  if (!left && !right && may_end) return std::nullopt;
  if (!left) FailEnded(left_);
  if (!right) FailEnded(right_);
  if (!right_.source) {
    PicturePair pair = Split(left);
    ++count_;
    return pair;
  }
  const LumaView l(left), r(right);
  if (l.width != r.width || l.height != r.height) {
    throw std::runtime_error("the pictures differ in size: '" + left_.name + "' is " + SizeText(l) +
                             ", '" + right_.name + "' is " + SizeText(r) + " in frame " +
                             std::to_string(count_));
  }
  ++count_;
  PicturePair pair{std::move(left), std::move(right), nullptr, nullptr};
  AddColours(pair);
  return pair;
}

void PairReader::AddColours(PicturePair& pair) const {
  if (colours_ != Colours::kNone) pair.left_colours = left_.source->Colours();
  if (colours_ == Colours::kBoth) pair.right_colours = right_.source->Colours();
}

// Copies the two halves of a picture.
PicturePair PairReader::Split(const FramePtr& picture) const {
  const LumaView view(picture);
  if (view.width % 2 != 0) {
    throw std::runtime_error("'" + left_.name + "' is " + SizeText(view) +
                             ": two views side by side have an even width");
  }
  const std::uint32_t width = view.width / 2;
  const auto half = [&](std::size_t first) {
    return CopyOf<std::uint8_t>(view.data + first, view.pitch, width, view.height);
  };
  PicturePair pair{half(0), half(width), nullptr, nullptr};
  const FramePtr colours = colours_ != Colours::kNone ? left_.source->Colours() : nullptr;
  if (!colours) return pair;
  const auto half_of_colours = [&](std::size_t first) {
    return CopyOf<Rgb>(colours->Data() + 3 * first, std::size_t{3} * view.width, width,
                       view.height);
  };
  pair.left_colours = half_of_colours(0);
  pair.right_colours = half_of_colours(width);
  return pair;
}

void PairReader::ReportDamage() const {
  for (const Input* input : {&left_, &right_}) {
    const std::size_t damaged = input->source ? input->source->DamagedPictures() : 0;
    if (damaged > 0) PrintDamage(input->name, damaged, count_);
  }
}

void PairReader::Cancel() {
  left_.source->Cancel();
  if (right_.source) right_.source->Cancel();
}

void PairReader::FailEnded(const Input& input) const {
  const std::string expected = pairs_ == 0   ? "the other input continues"
                               : pairs_ == 1 ? "1 was requested"
                                             : std::to_string(pairs_) + " were requested";
  throw std::runtime_error("'" + input.name + "' ends after " + tools::Count(count_, "frame") +
                           ": " + expected);
}

}  // namespace qx::tools
