// Scaling, cropping, converting and encoding of any frame, whether it keeps its promises or not,
// with any arguments.
#include <algorithm>
#include <cstring>
#include <vector>

#include "fuzz/media_properties.h"
#include "qxtools/ffmpeg_media_proc.h"

namespace qx::fuzzing {
namespace {

using velkar::vision::BBox_;
using velkar::vision::ImageFrame;

constexpr QXPixelFormat kFormats[] = {
    kQXPixelFormatUnknown,  kQXPixelFormatGray8,    kQXPixelFormatGray16, kQXPixelFormatNV21,
    kQXPixelFormatNV12,     kQXPixelFormatYUV420P,  kQXPixelFormatRGB888, kQXPixelFormatBGR888,
    kQXPixelFormatARGB8888, kQXPixelFormatBGRA8888, kQXPixelFormatUint8};

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : next_(data), end_(data + size) {}

  // Returns: the next bytes as a value; zeros after the end.
  template <typename T>
  T Take() {
    T value = {};
    const std::size_t count =
        std::min<std::size_t>(sizeof(T), static_cast<std::size_t>(end_ - next_));
    std::memcpy(&value, next_, count);
    next_ += count;
    return value;
  }
  QXPixelFormat Format() { return kFormats[Take<std::uint8_t>() % std::size(kFormats)]; }

 private:
  const std::uint8_t* next_;
  const std::uint8_t* end_;
};

// A frame of somebody else's, as large as its bytes say, or a byte too small.
class Foreign : public ImageFrame {
 public:
  explicit Foreign(Input& input)
      : width_(input.Take<std::uint8_t>() % 70), height_(input.Take<std::uint8_t>() % 40) {
    pixel_format = input.Format();
    const auto flaw = input.Take<std::uint8_t>();
    std::size_t bytes = PictureBytes(pixel_format, width_, height_);
    if (flaw == 0 && bytes > 0) --bytes;
    bytes_.resize(bytes, input.Take<std::uint8_t>());
    for (std::size_t i = 0; i < bytes; i += 7) bytes_[i] = input.Take<std::uint8_t>();
  }
  std::uint8_t* Data() const override { return const_cast<std::uint8_t*>(bytes_.data()); }
  std::uint32_t DataSize() const override { return static_cast<std::uint32_t>(bytes_.size()); }
  std::uint32_t Width() const override { return width_; }
  std::uint32_t Height() const override { return height_; }
  std::uint32_t Channel() const override { return 1; }

 private:
  std::uint32_t width_, height_;
  std::vector<std::uint8_t> bytes_;
};

void CheckSize(const std::shared_ptr<ImageFrame>& frame, std::size_t width, std::size_t height) {
  CheckPicture(frame);
  Require(frame->Width() == width && frame->Height() == height);
}

}  // namespace

// Input: the operation, its arguments, the frame.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto engine = utils::image::CreateFfmpegMediaProc();
  Input input(data, size);
  const auto operation = input.Take<std::uint8_t>();
  const std::size_t width = input.Take<std::uint16_t>() % 300;
  const std::size_t height = input.Take<std::uint16_t>() % 300;
  const QXPixelFormat format = input.Format();
  std::vector<BBox_<float>> boxes;
  for (int i = operation / 8 % 4; i > 0; --i) {
    const auto corners = input.Take<std::array<float, 4>>();
    boxes.emplace_back(corners[0], corners[1], corners[2], corners[3]);
  }
  const auto frame = std::make_shared<Foreign>(input);
  if (operation % 4 == 0) {
    if (const auto scaled = engine->Resize(frame, width, height)) CheckSize(scaled, width, height);
  } else if (operation % 4 == 1) {
    const bool resize = operation % 8 == 1;
    const auto cut = engine->Crop(frame, boxes, width, height, resize);
    Require(cut.empty() || cut.size() == boxes.size());
    for (const auto& part : cut) {  // null: an empty box
      if (part != nullptr) resize ? CheckSize(part, width, height) : CheckPicture(part);
    }
  } else if (operation % 4 == 2) {
    const auto converted = engine->CvtColor(frame, format);
    if (converted != nullptr) CheckSize(converted, frame->Width(), frame->Height());
    Require(converted == nullptr || converted->pixel_format == format);
  } else {
    utils::image::EncodeParams params;
    params.quality = static_cast<std::uint32_t>(width);
    const auto file =
        engine->Encode(frame, static_cast<utils::image::ImageFileFormat>(height % 4), params);
    if (!file.empty())
      CheckSize(engine->Decode(file.data(), file.size()), frame->Width(), frame->Height());
  }
  return 0;
}

}  // namespace qx::fuzzing
