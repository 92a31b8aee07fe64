// The engine's Decode and Encode, and how it is installed.
#include "qxtools/ffmpeg_media_proc.h"

#include <turbojpeg.h>

#include <climits>
#include <cmath>
#include <fstream>
#include <iterator>
#include <thread>

#include "tests/testing/decoding.h"
#include "tests/testing/stereo_frames.h"
#include "tests/testing/test.h"

namespace qx::utils::image {
namespace {

using ::testing::StartsWith;
using Frame = MediaProc::Frame;
using File = std::vector<unsigned char>;

const std::shared_ptr<MediaProc> engine = CreateFfmpegMediaProc();

Frame Decoded(const File& file) { return engine->Decode(file.data(), file.size()); }

File ReadFile(const std::string& name) {
  std::ifstream stream(QXTOOLS_PICTURES "/" + name, std::ios::binary);
  return File(std::istreambuf_iterator<char>(stream), {});
}

std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

// Returns: the largest difference between bytes; 256 when the sizes differ.
int Difference(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return 256;
  int largest = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    largest = std::max(largest,
                       std::abs(static_cast<std::uint8_t>(a[i]) - static_cast<std::uint8_t>(b[i])));
  }
  return largest;
}

// A smooth picture with all values in its bytes.
Frame Gradient(QXPixelFormat format, std::size_t height, std::size_t width) {
  const std::size_t channels = format == kQXPixelFormatRGB888 || format == kQXPixelFormatBGR888 ? 3
                               : format >= kQXPixelFormatARGB8888                               ? 4
                                                                                                : 1;
  Frame frame = testing::NewFrame(format, height, width, channels);
  for (unsigned i = 0; i < frame->DataSize(); ++i) {
    const double x = static_cast<double>(i) / frame->DataSize();
    frame->Data()[i] = static_cast<std::uint8_t>(127.5 + 127.5 * std::sin(9 * x + i % 4));
  }
  return frame;
}

std::string Swapped(std::string bytes, std::size_t pixel, const std::vector<std::size_t>& order) {
  std::string swapped;
  for (std::size_t i = 0; i < bytes.size(); i += pixel) {
    for (const std::size_t channel : order) swapped += bytes[i + channel];
  }
  return swapped;
}

TEST(FfmpegMediaProc, DecodesFilesOfOtherProgramsIntoTheDocumentedFormats) {
  std::string grey;
  for (int i = 0; i < 64; ++i) grey += static_cast<char>(40 + 12 * (i % 8) + 4 * (i / 8));
  const std::string brown = FromHex("c86432");
  const auto repeated = [](int count, const std::string& bytes) {
    std::string all;
    for (int i = 0; i < count; ++i) all += bytes;
    return all;
  };
  // BT.601: 124, 86, 182 with full range.
  const auto planes = [&](char y, char u, char v) {
    return std::string(128, y) + std::string(32, u) + std::string(32, v);
  };
  const struct {
    const char* name;
    QXPixelFormat format;
    unsigned width, height;
    std::string samples;
    int tolerance = 0;
  } rows[] = {
      {"grey1.png", kQXPixelFormatGray8, 3, 2, FromHex("ff00ff00ff00")},
      {"grey16.png", kQXPixelFormatGray16, 2, 1, FromHex("34120180")},  // little-endian hosts
      {"rgb16.png", kQXPixelFormatRGB888, 2, 1, FromHex("0000ff8001fe")},
      {"grey_alpha.png", kQXPixelFormatARGB8888, 2, 1, FromHex("8010101000202020")},
      {"rgba16.png", kQXPixelFormatARGB8888, 1, 1, FromHex("80010203")},
      {"palette.png", kQXPixelFormatRGB888, 3, 1, FromHex("070809010203040506")},
      {"palette_alpha.png", kQXPixelFormatARGB8888, 2, 1, FromHex("ff04050600010203")},
      {"bottom_up.bmp", kQXPixelFormatRGB888, 1, 2, FromHex("060504030201")},
      {"top_down.bmp", kQXPixelFormatRGB888, 1, 2, FromHex("030201060504")},
      {"palette4.bmp", kQXPixelFormatRGB888, 3, 1, FromHex("030201f2f1f0f2f1f0")},
      {"palette_grey.bmp", kQXPixelFormatGray8, 2, 1, FromHex("7090")},
      {"progressive_grey.jpg", kQXPixelFormatGray8, 8, 8, grey, 2},
      {"progressive_420.jpg", kQXPixelFormatYUV420P, 16, 8, planes(124, 86, '\xB6'), 1},
      {"progressive_420_odd.jpg", kQXPixelFormatRGB888, 5, 3, repeated(15, brown), 3},
      {"progressive_444.jpg", kQXPixelFormatRGB888, 5, 3, repeated(15, brown), 3},
      {"lossless.webp", kQXPixelFormatARGB8888, 4, 2, repeated(8, "\xFF" + brown), 2},
      {"lossy.webp", kQXPixelFormatYUV420P, 16, 8, planes(122, 92, '\xAF'), 2},
  };
  for (const auto& row : rows) {
    File file = ReadFile(row.name);
    for (const int trailing : {0, 7}) {
      file.resize(file.size() + static_cast<std::size_t>(trailing), 0xFF);
      const Frame frame = Decoded(file);
      ASSERT_NE(frame, nullptr) << row.name;
      EXPECT_EQ(frame->pixel_format, row.format) << row.name;
      EXPECT_EQ(frame->Width() * 1000 + frame->Height(), row.width * 1000 + row.height) << row.name;
      EXPECT_LE(Difference(testing::BytesOf(frame), row.samples), row.tolerance) << row.name;
      const ffmpeg::FrameLayout* layout = ffmpeg::LayoutOf(frame);
      EXPECT_EQ(layout != nullptr, row.format == kQXPixelFormatYUV420P) << row.name;
      const bool jpeg = std::string(row.name).find(".jpg") != std::string::npos;
      EXPECT_TRUE(layout == nullptr || layout->full_range == jpeg) << row.name;
    }
  }
}

TEST(FfmpegMediaProc, DecodesAPictureWholeOrNotAtAll) {
  for (const char* name : {"grey16.png", "palette.png", "bottom_up.bmp", "progressive_444.jpg",
                           "progressive_420.jpg", "lossy.webp", "lossless.webp"}) {
    const File file = ReadFile(name);
    const std::string whole = testing::BytesOf(Decoded(file));
    const LogCapture log;
    std::size_t refused = 0;
    for (std::size_t size = 0; size < file.size(); ++size) {
      const Frame frame = Decoded(File(file.begin(), file.begin() + static_cast<long>(size)));
      if (frame == nullptr) ++refused;
      EXPECT_TRUE(frame == nullptr || testing::BytesOf(frame) == whole) << name << " " << size;
    }
    EXPECT_GE(refused, file.size() - 16) << name;  // what follows the pixels may be missing
    EXPECT_THAT(log.Messages(), AllOf(SizeIs(refused), Each(StartsWith("Decode: ")))) << name;
  }
}

TEST(FfmpegMediaProc, RefusesFilesWithOneLine) {
  const std::string png = FromHex("89504e470d0a1a0a0000000d49484452");
  const std::string bmp = "BM" + FromHex("00000000000000003600000028000000");
  const std::pair<std::string, const char*> rows[] = {
      {"", "Decode: there is no data"},
      {"a picture", "Decode: the data is neither JPEG, PNG, BMP nor WebP"},
      {png + FromHex("000186a0000186a00802000000"), "Decode: 100000 x 100000 is above 134217728"},
      {png + FromHex("00000000000000010802000000"), "Decode: the picture is empty: 0 x 1"},
      {png + "\x01", "Decode: the file is truncated"},
      {bmp + FromHex("a08601006079feff010018000100000000"), "Decode: 100000 x 100000 is above"},
      {bmp + FromHex("02000000020000000100180000000000"), "Decode: the file is truncated"},
      {FromHex("ffd8ffc0000b08ffffffff01011100ffd9"), "Decode: 65535 x 65535 is above"},
      {"RIFF....WEBPVP8X" + FromHex("0a00000000000000ffffffffffff"),
       "Decode: 16777216 x 16777216 is above"},
      {FromHex("ffd8ffd9"), "Decode: the picture is empty"},
      {std::string(reinterpret_cast<const char*>(ReadFile("cmyk.jpg").data()), 300),
       "Decode: JPEG files with four components (CMYK) are not read"},
  };
  for (const auto& [file, message] : rows) {
    const LogCapture log;
    EXPECT_EQ(Decoded(File(file.begin(), file.end())), nullptr);
    EXPECT_THAT(log.Messages(google::ERROR), ElementsAre(StartsWith(message)));
  }
  const LogCapture log;
  EXPECT_EQ(engine->Decode(nullptr, 5), nullptr);
  EXPECT_EQ(engine->Decode(File(1).data(), std::size_t{INT_MAX} + 1), nullptr);
  EXPECT_THAT(log.Messages(), SizeIs(2));
}

TEST(FfmpegMediaProc, LosslessFilesGiveBackTheSamples) {
  const struct {
    QXPixelFormat from;
    ImageFileFormat file;
    QXPixelFormat to;
    std::size_t pixel;
    std::vector<std::size_t> order;  // channels of the result in the frame's pixels
  } rows[] = {
      {kQXPixelFormatGray8, kImageFileFormatPng, kQXPixelFormatGray8, 1, {0}},
      {kQXPixelFormatGray16, kImageFileFormatPng, kQXPixelFormatGray16, 2, {0, 1}},
      {kQXPixelFormatRGB888, kImageFileFormatPng, kQXPixelFormatRGB888, 3, {0, 1, 2}},
      {kQXPixelFormatBGR888, kImageFileFormatPng, kQXPixelFormatRGB888, 3, {2, 1, 0}},
      {kQXPixelFormatARGB8888, kImageFileFormatPng, kQXPixelFormatARGB8888, 4, {0, 1, 2, 3}},
      {kQXPixelFormatBGRA8888, kImageFileFormatPng, kQXPixelFormatARGB8888, 4, {3, 2, 1, 0}},
      {kQXPixelFormatGray8, kImageFileFormatBmp, kQXPixelFormatGray8, 1, {0}},
      {kQXPixelFormatRGB888, kImageFileFormatBmp, kQXPixelFormatRGB888, 3, {0, 1, 2}},
      {kQXPixelFormatBGR888, kImageFileFormatBmp, kQXPixelFormatRGB888, 3, {2, 1, 0}},
      {kQXPixelFormatARGB8888, kImageFileFormatBmp, kQXPixelFormatRGB888, 4, {1, 2, 3}},
      {kQXPixelFormatBGRA8888, kImageFileFormatBmp, kQXPixelFormatRGB888, 4, {2, 1, 0}},
  };
  for (const auto& row : rows) {
    for (const auto& [height, width] : {std::pair(1, 1), {1, 131}, {67, 1}, {33, 65}, {48, 64}}) {
      const Frame frame =
          Gradient(row.from, static_cast<std::size_t>(height), static_cast<std::size_t>(width));
      const Frame back = Decoded(engine->Encode(frame, row.file, {}));
      ASSERT_NE(back, nullptr) << row.from << " " << row.file;
      EXPECT_EQ(back->pixel_format, row.to);
      EXPECT_EQ(testing::BytesOf(back), Swapped(testing::BytesOf(frame), row.pixel, row.order))
          << row.from << " " << row.file << " " << width << " x " << height;
    }
  }
}

// Colours that change slowly, so that half the chroma is enough.
Frame Smooth(std::size_t height, std::size_t width) {
  Frame frame = testing::NewFrame(kQXPixelFormatRGB888, height, width, 3);
  for (std::size_t i = 0; i < frame->DataSize(); ++i) {
    const std::size_t x = i / 3 % width, y = i / 3 / width;
    const double angle = static_cast<double>(x + 2 * y + 20 * (i % 3)) / 40;
    frame->Data()[i] = static_cast<std::uint8_t>(128 + 100 * std::sin(angle));
  }
  return frame;
}

TEST(FfmpegMediaProc, JpegFilesAreAsCloseAsTheirQuality) {
  for (const QXPixelFormat format :
       {kQXPixelFormatGray8, kQXPixelFormatBGRA8888, kQXPixelFormatYUV420P, kQXPixelFormatNV12}) {
    for (const auto& [height, width] : {std::pair(2, 2), {34, 66}, {8, 130}, {64, 48}}) {
      const Frame frame = engine->CvtColor(
          Smooth(static_cast<std::size_t>(height), static_cast<std::size_t>(width)), format);
      const QXPixelFormat kept = format == kQXPixelFormatGray8 ? format : kQXPixelFormatRGB888;
      const std::string samples = testing::BytesOf(engine->CvtColor(frame, kept));
      std::size_t last_size = 0;
      for (const auto& [quality, tolerance] : {std::pair(5U, 110), {50U, 40}, {100U, 6}}) {
        const File file = engine->Encode(frame, kImageFileFormatJpeg, {quality});
        const Frame back = Decoded(file);
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(back->pixel_format == kQXPixelFormatGray8, format == kQXPixelFormatGray8);
        EXPECT_LE(Difference(testing::BytesOf(engine->CvtColor(back, kept)), samples), tolerance)
            << format << " " << width << " x " << height << ", quality " << quality;
        EXPECT_GE(file.size(), last_size);
        last_size = file.size();
      }
    }
  }
  const Frame odd = Smooth(33, 65);
  const File file = engine->Encode(odd, kImageFileFormatJpeg, {});
  EXPECT_EQ(file, engine->Encode(odd, kImageFileFormatJpeg, {90}));
  EXPECT_LE(Difference(testing::BytesOf(Decoded(file)), testing::BytesOf(odd)), 12);
}

// libswscale alone stretches chroma of an odd width over one column too few.
TEST(FfmpegMediaProc, DecodesOddSizesWithHalfTheChromaLikeLibjpegTurbo) {
  constexpr int kWidth = 33, kHeight = 5;
  std::vector<unsigned char> pixels(3 * kWidth * kHeight);
  for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = i / 9 % 3 == i % 3 ? 220 : 30;
  const std::unique_ptr<void, int (*)(void*)> compressor(tjInitCompress(), tjDestroy);
  const std::unique_ptr<void, int (*)(void*)> decompressor(tjInitDecompress(), tjDestroy);
  unsigned char* bytes = nullptr;
  unsigned long size = 0;  // NOLINT(google-runtime-int): libjpeg-turbo's type
  ASSERT_EQ(tjCompress2(compressor.get(), pixels.data(), kWidth, 0, kHeight, TJPF_RGB, &bytes,
                        &size, TJSAMP_422, 95, 0),
            0);
  const File file(bytes, bytes + size);
  tjFree(bytes);
  ASSERT_EQ(tjDecompress2(decompressor.get(), file.data(), size, pixels.data(), kWidth, 0, kHeight,
                          TJPF_RGB, TJFLAG_ACCURATEDCT),
            0);
  EXPECT_LE(Difference(testing::BytesOf(Decoded(file)), {pixels.begin(), pixels.end()}), 4);
}

// The samples of a decoder's frame have gaps between their rows.
TEST(FfmpegMediaProc, EncodesFramesOfADecoder) {
  testing::Receiver receiver;
  const auto decoder = testing::OpenDecoder(receiver.Callback());
  testing::SendAll(*decoder, testing::ReadPackets("full_range.mp4"));
  const Frame frame = receiver.Frames(*decoder).front();
  const Frame back = Decoded(engine->Encode(frame, kImageFileFormatJpeg, {100}));
  EXPECT_LE(Difference(testing::Samples(back), testing::Samples(frame)), 6);
}

TEST(FfmpegMediaProc, RefusesFramesWithOneLine) {
  const Frame grey16 = Gradient(kQXPixelFormatGray16, 2, 2),
              grey = Gradient(kQXPixelFormatGray8, 2, 2);
  const Frame long_row = Gradient(kQXPixelFormatGray8, 1, 65536);
  const Frame map = testing::NewFrame(kQXPixelFormatUint8, 2, 2, 1);
  struct Short : velkar::vision::ImageFrameImpl {
    std::uint32_t Width() const override { return 4; }
    std::uint32_t Height() const override { return 5; }
    std::uint8_t* Data() const override { return nullptr; }
    std::uint32_t DataSize() const override { return 19; }
  };
  const auto too_short = std::make_shared<Short>();
  too_short->pixel_format = kQXPixelFormatGray8;
  const struct {
    Frame frame;
    std::uint32_t format, quality;
    const char* message;
  } rows[] = {
      {nullptr, 0, 0, "Encode: the frame is null"},
      {std::make_shared<velkar::vision::ImageFrameImpl>(), 0, 0, "Encode: the picture is empty"},
      {grey, 3, 0, "Encode: file format 3 is unknown"},
      {grey, 0, 101, "Encode: quality 101 is not in 0 .. 100"},
      {map, 0, 0, "Encode: pixel format 17 is not a picture's"},
      {grey16, 0, 0, "Encode: JPEG has no 16-bit grey"},
      {grey16, 2, 0, "Encode: BMP has no 16-bit grey"},
      {long_row, 0, 0, "Encode: 65536 x 1 is above JPEG's limit of 65500"},
      {too_short, 1, 0, "Encode: the frame's Data"},
  };
  for (const auto& row : rows) {
    const LogCapture log;
    EXPECT_THAT(engine->Encode(row.frame, static_cast<ImageFileFormat>(row.format), {row.quality}),
                IsEmpty());
    EXPECT_THAT(log.Messages(google::ERROR), ElementsAre(StartsWith(row.message)));
  }
}

TEST(FfmpegMediaProc, IsInstalledForDeviceZeroUntilItIsRemoved) {
  const LogCapture log;
  InstallFfmpegMediaProc();
  const Frame grey = Gradient(kQXPixelFormatGray8, 3, 3);
  EXPECT_THAT(Encode(grey, kImageFileFormatPng, 0), ::testing::Not(IsEmpty()));
  EXPECT_THAT(log.Messages(), IsEmpty());
  EXPECT_THAT(Encode(grey, kImageFileFormatPng, 1), IsEmpty());
  InstallMediaProcFactory(nullptr);
  EXPECT_THAT(Encode(grey, kImageFileFormatPng, 0), IsEmpty());
  EXPECT_THAT(log.Messages(), ElementsAre("create MediaProc failed", "create MediaProc failed"));
}

// Run under the thread sanitizer.
TEST(FfmpegMediaProc, FourThreadsGetTheSameBytes) {
  const Frame picture = Gradient(kQXPixelFormatRGB888, 60, 90);
  const auto use = [&picture] {
    std::string all;
    for (const std::uint32_t format : {0U, 1U, 2U}) {
      const File file = engine->Encode(picture, static_cast<ImageFileFormat>(format), {});
      all += testing::BytesOf(Decoded(file));
    }
    for (const char* name : {"palette.png", "progressive_420_odd.jpg", "lossy.webp"}) {
      all += testing::BytesOf(Decoded(ReadFile(name)));
    }
    return all;
  };
  const std::string expected = use();
  const auto use_often = [&] {
    for (int round = 0; round < 5; ++round) EXPECT_EQ(use(), expected);
  };
  std::thread threads[] = {std::thread(use_often), std::thread(use_often), std::thread(use_often),
                           std::thread(use_often)};
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace qx::utils::image
