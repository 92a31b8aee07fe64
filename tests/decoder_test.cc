#include <cstdio>
#include <cstdlib>
#include <tuple>
#include <typeinfo>

#include "qx_utils/ffmpeg_video_decoder/decoded_frame.h"
#include "qx_utils/ffmpeg_video_decoder/pixel_format.h"
#include "tests/testing/decoding.h"
#include "tests/testing/test.h"

namespace qx {
namespace utils {
namespace ffmpeg {
namespace {

using testing::Drain;
using testing::FramePtr;
using testing::MakePacket;
using testing::OpenDecoder;
using testing::ReadPackets;
using testing::Receiver;
using testing::SendAll;
using ::testing::Values;
using velkar::vision::ImageFrame;
using velkar::vision::ImageFrameImpl;

// Whether the ffmpeg command brings every picture to the size of the first: before version 4.4 it
// knows no other way.
bool FfmpegScales() {
  static const bool scales = std::system("ffmpeg -v quiet -h full | grep -q '^-autoscale'") != 0;
  return scales;
}

// All pictures of a clip, one after the other, as they are.
std::string FfmpegsOutput(const std::string& clip) {
  const std::string command = "ffmpeg -nostdin -v error -threads 1 -i '" + testing::ClipPath(clip) +
                              "' -vsync passthrough -f rawvideo " +
                              (FfmpegScales() ? "-" : "-autoscale 0 -");
  std::FILE* pipe = popen(command.c_str(), "r");
  std::string output(1 << 24, '\0');
  output.resize(std::fread(output.data(), 1, output.size(), pipe));
  EXPECT_EQ(pclose(pipe), 0) << command;
  return output;
}

class DecodeClip : public ::testing::TestWithParam<const char*> {};

TEST_P(DecodeClip, GivesFfmpegsPicturesInOrderWithTheirPointers) {
  if (FfmpegScales() && GetParam() == std::string("size_change.h264")) {
    GTEST_SKIP() << "this ffmpeg command scales, and so shows other pictures";
  }
  const auto packets = ReadPackets(GetParam());
  const std::string expected = FfmpegsOutput(GetParam());
  for (const int depth : {0, kMaxReorderDepth}) {
    Receiver receiver;
    auto decoder = OpenDecoder(receiver.Callback());
    ASSERT_EQ(decoder->SetReorderDepth(depth), 0);
    std::vector<void*> tags = SendAll(*decoder, packets);
    tags.resize(tags.size() + Drain(*decoder));
    EXPECT_THAT(tags, SizeIs(packets.size()));
    const std::vector<FramePtr> frames = receiver.Wait(tags.size());
    decoder.reset();  // the frames live on
    EXPECT_EQ(receiver.Tags(), tags);
    std::string samples;
    for (const FramePtr& frame : frames) samples += testing::Samples(frame);
    EXPECT_TRUE(samples == expected) << samples.size() << " bytes for " << expected.size();
  }
}
INSTANTIATE_TEST_SUITE_P(Clips, DecodeClip,
                         Values("left.mkv", "bframes.h264", "bframes.mp4", "baseline.h264",
                                "interlaced.h264", "cropped.h264", "full_range.mp4",
                                "size_change.h264", "short_start_codes.h264"));

TEST(DecodedFrame, HasThreeFieldsAndALayout) {
  for (const bool full_range : {false, true}) {
    Receiver receiver;
    const auto decoder = OpenDecoder(receiver.Callback());
    SendAll(*decoder, ReadPackets(full_range ? "full_range.mp4" : "cropped.h264"));
    const FramePtr frame = receiver.Wait(1).front();
    const FrameLayout& layout = *LayoutOf(frame);
    EXPECT_EQ(layout.full_range, full_range);
    EXPECT_EQ(layout.width, full_range ? 320U : 318U);
    EXPECT_EQ(layout.height, full_range ? 240U : 238U);
    const auto& [y, u, v] = layout.planes;
    EXPECT_EQ(u.offset, layout.height * y.pitch);
    EXPECT_EQ(v.offset, u.offset + layout.height / 2 * u.pitch);
    EXPECT_EQ(frame->DataSize(), layout.height * y.pitch + (u.pitch + v.pitch) * layout.height / 2);
    EXPECT_EQ(frame->pixel_format, kQXPixelFormatYUV420P);
    EXPECT_EQ(frame->Width() + frame->Height() + frame->Channel(), 0U);
    EXPECT_EQ(std::tie(frame->name, frame->scale), std::make_tuple(std::string(), 1.0F));
    EXPECT_EQ(frame->Holder(), nullptr);
    const ImageFrame& object = *frame;
    EXPECT_EQ(typeid(object), typeid(ImageFrameImpl));
    const auto copy = std::make_shared<ImageFrameImpl>(static_cast<ImageFrameImpl&>(*frame));
    EXPECT_EQ(LayoutOf(FramePtr(std::shared_ptr<void>(frame), frame.get())), &layout);
    EXPECT_EQ(LayoutOf(FramePtr(frame, copy.get())), nullptr) << "another frame, same ownership";
    EXPECT_EQ(LayoutOf(copy), nullptr);
    EXPECT_EQ(LayoutOf(nullptr), nullptr);
  }
}

TEST(Decoder, RefusesOtherFormatsWithOneLineEach) {
  for (const auto& [clip, name] :
       {std::pair("chroma422.mp4", "yuv422p"), std::pair("bits10.mp4", "yuv420p10le")}) {
    const auto decoder = OpenDecoder([](const FramePtr&, void*) { FAIL() << "delivered"; });
    const auto packets = ReadPackets(clip);
    const LogCapture log;
    std::size_t refused = 0;
    for (const auto& packet : packets) {
      refused += decoder->SendFrame(packet, nullptr) == kDecodeUnsupportedFormat ? 1 : 0;
    }
    EXPECT_EQ(refused + Drain(*decoder, kDecodeUnsupportedFormat), 6U);
    EXPECT_THAT(log.Messages(google::ERROR),
                AllOf(SizeIs(6), Each(HasSubstr(std::string("pixel format ") + name + " is"))));
  }
}

TEST(Decoder, TellsEveryOtherPacketApartAndGoesOn) {
  std::uint8_t byte = 0;
  std::vector<std::uint8_t> garbage(5000);
  for (std::size_t i = 0; i < garbage.size(); ++i) garbage[i] = std::uint8_t((i * i >> 3) & 0xFF);
  constexpr std::uint64_t kMax = std::numeric_limits<int>::max();
  const auto clip = ReadPackets("left.h264");
  const struct {
    const char* name;
    testing::PacketPtr packet;
    int status;
  } cases[] = {
      {"null", nullptr, kDecodeNullPacket},
      {"no data", MakePacket(nullptr, 1), kDecodeInvalidPacket},
      {"no size", MakePacket(&byte, 0), kDecodeInvalidPacket},
      {"size of 2^31", MakePacket(&byte, kMax + 1), kDecodeInvalidPacket},
      {"size of 2^32 + 1", MakePacket(&byte, (1ULL << 32) + 1), kDecodeInvalidPacket},
      {"no room for padding", MakePacket(&byte, kMax), kDecodeFailed},
      {"garbage", MakePacket(garbage.data(), garbage.size()), kDecodeFailed},
      {"H.265", ReadPackets("hevc.h265").front(), kDecodeFailed},
      {"drain", MakePacket(nullptr, 0), kDecodeEndOfStream},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(CreateFfmpegDecoder()->SendFrame(c.packet, nullptr),
              c.packet == nullptr ? kDecodeNullPacket : kDecodeNotInitialised);
    Receiver receiver;
    const auto decoder = OpenDecoder(receiver.Callback());
    EXPECT_EQ(decoder->SendFrame(c.packet, nullptr), c.status);
    EXPECT_THAT(receiver.Tags(), IsEmpty());
    EXPECT_THAT(SendAll(*decoder, clip), SizeIs(clip.size()));
  }
}

TEST(Decoder, ReadsNothingBehindThePayload) {
  const auto decoder = OpenDecoder();
  for (const auto& packet : ReadPackets("left.h264")) {
    const GuardedBuffer payload(packet->size);
    std::copy_n(packet->data, packet->size, payload.data());
    EXPECT_EQ(decoder->SendFrame(MakePacket(payload.data(), packet->size), nullptr), 0);
  }
}

TEST(Decoder, StartsANewStreamAfterADrain) {
  const auto packets = ReadPackets("bframes.h264");
  const auto decoder = OpenDecoder();
  const std::size_t queued = SendAll(*decoder, packets).size();
  const std::size_t held_back = Drain(*decoder);
  EXPECT_EQ(queued + held_back, packets.size());
  EXPECT_GT(held_back, 0U);
  EXPECT_EQ(SendAll(*decoder, packets).size(), queued);
  EXPECT_EQ(decoder->SendFrame(MakePacket(nullptr, 0), nullptr), 0);
  EXPECT_EQ(SendAll(*decoder, packets).size(), queued) << "what was left of the drain is dropped";
}

TEST(Decoder, RefusesReorderDepthsThatDoNotExist) {
  EXPECT_EQ(CreateFfmpegDecoder()->SetReorderDepth(1), kDecodeNotInitialised);
  const auto decoder = OpenDecoder();
  for (const int depth : {-1, 16}) EXPECT_EQ(decoder->SetReorderDepth(depth), kDecodeFailed);
}

// A picture whose planes hold their plane number + 1 in each sample and 0 in the padding.
struct SmallPicture {
  SmallPicture(AVPixelFormat format, int width, int height, const int (&pitches)[3])
      : frame(av_frame_alloc()) {
    frame->format = format;
    frame->width = width;
    frame->height = height;
    for (int plane = 0; plane < 3; ++plane) {
      memory[plane].assign(4096, static_cast<std::uint8_t>(plane + 1));
      frame->data[plane] = memory[plane].data();
      frame->linesize[plane] = pitches[plane];
    }
  }
  std::vector<std::uint8_t> memory[3];
  internal::FfmpegPtr<AVFrame> frame;
};

TEST(CopyPicture, KeepsPitchesRoundsChromaDownAndRefusesWhatDoesNotFit) {
  constexpr int kBig = 1 << 30;
  constexpr auto kNoFormat = static_cast<QXPixelFormat>(0);
  const struct {
    AVPixelFormat format;
    int width, height;
    int pitches[3];
    DecodeStatus status;
    QXPixelFormat result;
    std::uint32_t size;
    const char* samples;
  } cases[] = {
      {AV_PIX_FMT_YUV420P, 3, 3, {8, 4, 6}, kDecodeOk, kQXPixelFormatYUV420P, 34, "11111111123"},
      {AV_PIX_FMT_YUVJ420P, 2, 1, {2, 1, 1}, kDecodeOk, kQXPixelFormatYUV420P, 2, "11"},
      {AV_PIX_FMT_NV12, 4, 2, {8, 16, 0}, kDecodeOk, kQXPixelFormatNV12, 32, "111111112222"},
      {AV_PIX_FMT_NV21, 2, 3, {2, 2, 0}, kDecodeOk, kQXPixelFormatNV21, 8, "11111122"},
      {AV_PIX_FMT_YUV420P, 4, 0, {4, 2, 2}, kDecodeOk, kQXPixelFormatYUV420P, 0, ""},
      {AV_PIX_FMT_YUV420P, 4, 2, {-4, 2, 2}, kDecodePictureTooLarge, kNoFormat, 0, ""},
      {AV_PIX_FMT_YUV420P, 4, 2, {4, 2, -2}, kDecodePictureTooLarge, kNoFormat, 0, ""},
      {AV_PIX_FMT_YUV420P, 4, -2, {4, 2, 2}, kDecodePictureTooLarge, kNoFormat, 0, ""},
      {AV_PIX_FMT_YUV420P, 4, 2, {kBig, 2, 2}, kDecodePictureTooLarge, kNoFormat, 0, ""},
      {AV_PIX_FMT_YUV420P, 4, kBig, {kBig, kBig, kBig}, kDecodePictureTooLarge, kNoFormat, 0, ""},
      {AV_PIX_FMT_NONE, 4, 2, {4, 2, 2}, kDecodeUnsupportedFormat, kNoFormat, 0, ""},
      {AV_PIX_FMT_YUV444P, 4, 2, {4, 4, 4}, kDecodeUnsupportedFormat, kNoFormat, 0, ""},
  };
  for (const auto& c : cases) {
    const SmallPicture picture(c.format, c.width, c.height, c.pitches);
    const LogCapture log;
    FramePtr frame;
    EXPECT_EQ(CopyPicture(*picture.frame, frame), c.status);
    ASSERT_EQ(frame != nullptr, c.status == kDecodeOk);
    if (frame == nullptr) {
      EXPECT_THAT(log.Messages(google::ERROR), ElementsAre(HasSubstr("decoded picture refused")));
      continue;
    }
    EXPECT_EQ(frame->pixel_format, c.result);
    EXPECT_EQ(frame->DataSize(), c.size);
    std::string samples = testing::Samples(frame);
    for (char& sample : samples) sample = static_cast<char>(sample + '0');
    EXPECT_EQ(samples, c.samples);
  }
}

TEST(ConvertAvPixelFormat, KnowsThreeFormatsAndDiesOfOthers) {
  EXPECT_EQ(ConvertAvPixelFormat(AV_PIX_FMT_YUV420P), 7);
  EXPECT_EQ(ConvertAvPixelFormat(AV_PIX_FMT_NV12), 6);
  EXPECT_EQ(ConvertAvPixelFormat(AV_PIX_FMT_NV21), 5);
  EXPECT_DEATH(ConvertAvPixelFormat(AV_PIX_FMT_NONE),
               "Check failed: it != av2qx_map.end\\(\\) not found pixel format -1");
}

}  // namespace
}  // namespace ffmpeg
}  // namespace utils
}  // namespace qx
