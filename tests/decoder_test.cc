#include <algorithm>
#include <cstring>
#include <set>
#include <tuple>
#include <typeinfo>

#include "qx_utils/ffmpeg_video_decoder/decoded_frame.h"
#include "qx_utils/ffmpeg_video_decoder/pixel_format.h"
#include "qx_utils/video/stream_packet.h"
#include "tests/testing/decoding.h"
#include "tests/testing/test.h"

namespace qx::utils::ffmpeg {
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

struct Setting {
  const char* name;
  int depth;
  DecodeThreads threads;
  int thread_count;
};
constexpr Setting kSettings[] = {{"least delay", 0, kDecodeOneThread, 1},
                                 {"every picture", kMaxReorderDepth, kDecodeOneThread, 1},
                                 {"slices", 0, kDecodeSliceThreads, 3},
                                 {"pictures", kMaxReorderDepth, kDecodePictureThreads, 3}};

// Requires that the frames have the times and key marks of the packets, in the order of the times.
// Raw streams have none and keep their order.
void ExpectTimes(const std::vector<FramePtr>& frames,
                 const std::vector<testing::PacketPtr>& packets) {
  std::vector<video::PacketTimes> times;
  times.reserve(packets.size());
  for (const auto& packet : packets) times.push_back(*video::PacketTimesOf(packet));
  std::stable_sort(times.begin(), times.end(), [](const auto& one, const auto& other) {
    return one.presentation < other.presentation;
  });
  ASSERT_EQ(frames.size(), times.size());
  for (std::size_t i = 0; i < times.size(); ++i) {
    const FrameLayout& l = *LayoutOf(frames[i]);
    const auto& t = times[i];
    EXPECT_EQ(std::tie(l.presentation_time, l.time_base_num, l.time_base_den, l.key),
              std::tie(t.presentation, t.time_base_num, t.time_base_den, t.key));
    EXPECT_FALSE(l.damaged || l.discontinuity || l.wall_clock_us != video::kNoTime);
  }
}

class DecodeClip : public ::testing::TestWithParam<const char*> {};

// That they are FFmpeg's pictures is tested with the command: command_test.py, test_clips.
TEST_P(DecodeClip, GivesTheSamePicturesInOrderWithTheirPointersAndTimes) {
  const auto packets = ReadPackets(GetParam());
  std::string expected;
  for (const Setting& setting : kSettings) {
    SCOPED_TRACE(setting.name);
    Receiver receiver;
    auto decoder = CreateFfmpegDecoder();
    ASSERT_EQ(decoder->SetThreads(setting.threads, setting.thread_count), 0);
    ASSERT_EQ(decoder->Init(), 0);
    decoder->SetCallback(receiver.Callback());
    ASSERT_EQ(decoder->SetReorderDepth(setting.depth), 0);
    std::vector<void*> tags = SendAll(*decoder, packets);
    if (setting.threads == kDecodePictureThreads) {
      EXPECT_THAT(tags, SizeIs(packets.size() - kMaxReorderDepth - 2)) << "the delay as promised";
    }
    tags.resize(packets.size());
    EXPECT_EQ(decoder->Drain(nullptr), 0);
    const std::vector<FramePtr> frames = receiver.Frames(*decoder);
    decoder.reset();  // the frames live on
    EXPECT_EQ(receiver.Tags(), tags);
    std::string samples;
    for (const FramePtr& frame : frames) samples += testing::Samples(frame);
    if (expected.empty()) expected = samples;
    EXPECT_TRUE(samples == expected) << samples.size() << " bytes for " << expected.size();
    ExpectTimes(frames, packets);
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
    const FramePtr frame = receiver.Frames(*decoder).front();
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

// Each picture had a line once: 25 a second for as long as a camera ran.
TEST(Decoder, RefusesOtherFormatsWithOneLineForEachChange) {
  const auto yuv422 = ReadPackets("chroma422.mp4");
  const auto bits10 = ReadPackets("bits10.mp4");
  const auto good = ReadPackets("left.h264");
  const auto decoder = OpenDecoder([](const FramePtr&, void*) {});
  const LogCapture log;
  for (const auto* packets : {&yuv422, &bits10, &good, &bits10}) {
    std::size_t refused = 0;
    for (const auto& packet : *packets) {
      refused += decoder->SendFrame(packet, nullptr) == kDecodeUnsupportedFormat ? 1 : 0;
    }
    refused += Drain(*decoder, kDecodeUnsupportedFormat);
    EXPECT_EQ(refused, packets == &good ? 0U : 6U);
  }
  EXPECT_THAT(log.Messages(google::ERROR),
              ElementsAre(HasSubstr("format yuv422p is"), HasSubstr("yuv420p10le is"),
                          HasSubstr("yuv420p10le is")));
}

// Returns: the bytes in front of the first slice.
std::uint64_t SizeUpToSlice(const video::StreamPacket& packet) {
  std::uint64_t size = 0;
  const auto is_slice = [&] {
    const std::uint8_t* at = packet.data + size;
    return at[0] == 0 && at[1] == 0 && at[2] == 1 && (at[3] & 0x1F) == 5;
  };
  while (!is_slice()) ++size;
  return size - 1;  // its start code has four bytes
}

TEST(Decoder, TellsEveryOtherPacketApartAndGoesOn) {
  std::uint8_t byte = 0;
  std::vector<std::uint8_t> garbage(5000);
  for (std::size_t i = 0; i < garbage.size(); ++i) garbage[i] = std::uint8_t((i * i >> 3) & 0xFF);
  constexpr std::uint64_t kMax = std::numeric_limits<int>::max();
  std::uint8_t headers[] = {0, 0, 0, 1, 0x09, 0xF0, 0, 0, 1, 0x0C, 0xFF, 0x80};
  const auto clip = ReadPackets("left.h264");
  const std::uint64_t parameter_sets = SizeUpToSlice(*clip.front());
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
      // These were damaged payloads once.
      {"access unit delimiter", MakePacket(headers, 6), kDecodeNoPicture},
      {"filler", MakePacket(headers + 6, 6), kDecodeNoPicture},
      {"both", MakePacket(headers, sizeof(headers)), kDecodeNoPicture},
      {"parameter sets", MakePacket(clip.front()->data, parameter_sets), kDecodeNoPicture},
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

// FFmpeg reports a packet without a slice when its thread is next in turn, some packets later.
TEST(Decoder, TellsHeadersApartWithAThreadForEachPicture) {
  std::uint8_t delimiter[] = {0, 0, 0, 1, 0x09, 0xF0};
  const auto decoder = CreateFfmpegDecoder();
  ASSERT_EQ(decoder->SetThreads(kDecodePictureThreads, 2), 0);
  ASSERT_EQ(decoder->Init(), 0);
  std::size_t queued = 0;
  const auto send = [&](const testing::PacketPtr& packet) {
    const int status = decoder->SendFrame(packet, nullptr);
    EXPECT_THAT(status, ::testing::AnyOf(kDecodeOk, kDecodeNoPicture));
    queued += status == kDecodeOk ? 1 : 0;
  };
  const auto packets = ReadPackets("left.h264");
  for (const auto& packet : packets) {
    send(MakePacket(delimiter, sizeof(delimiter)));
    send(packet);
  }
  EXPECT_EQ(queued + Drain(*decoder), packets.size());
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

TEST(Decoder, RefusesDepthsAndThreadsThatDoNotExist) {
  EXPECT_EQ(CreateFfmpegDecoder()->SetReorderDepth(1), kDecodeNotInitialised);
  const auto decoder = OpenDecoder();
  for (const int depth : {-1, 16}) EXPECT_EQ(decoder->SetReorderDepth(depth), kDecodeOutOfRange);
  for (const int count : {-1, 0, kMaxDecodeThreads + 1}) {
    EXPECT_EQ(decoder->SetThreads(kDecodeSliceThreads, count), kDecodeOutOfRange);
  }
  EXPECT_EQ(decoder->SetThreads(static_cast<DecodeThreads>(3), 1), kDecodeOutOfRange);
}

// Damaged pictures came out like good ones once.
TEST(Decoder, MarksPicturesWithConcealedErrorsAndCorruptPackets) {
  auto packets = ReadPackets("left.h264");
  std::fill_n(packets[3]->data + packets[3]->size / 2, packets[3]->size / 4, std::uint8_t{0});
  AVPacket corrupt;
  internal::InitPacket(corrupt);
  ASSERT_EQ(av_packet_ref(&corrupt, internal::WrappedPacket(packets[7])), 0);
  corrupt.flags |= AV_PKT_FLAG_CORRUPT;
  packets[7] = internal::WrapPacket(corrupt, video::kVideoCodecH264);
  Receiver receiver;
  const auto decoder = OpenDecoder(receiver.Callback());
  EXPECT_THAT(SendAll(*decoder, packets), SizeIs(packets.size()));
  std::vector<std::size_t> damaged;
  const auto frames = receiver.Frames(*decoder);
  for (std::size_t i = 0; i < frames.size(); ++i) {
    if (LayoutOf(frames[i])->damaged) damaged.push_back(i);
  }
  EXPECT_THAT(damaged, ElementsAre(3, 7));
}

TEST(Decoder, HandsOnGapsAndWallClocksWithThePicturesBehindThem) {
  auto packets = ReadPackets("bframes.mp4");  // shown in another order than stored
  std::vector<std::int64_t> after_gap;        // presentation times
  for (std::size_t i = 0; i < packets.size(); ++i) {
    const auto times = *video::PacketTimesOf(packets[i]);
    // The packets of a gap and of the next picture are lost to the decoder: one holds no slice.
    const bool gap = i == 12;
    AVPacket copy;
    internal::InitPacket(copy);
    ASSERT_EQ(av_packet_ref(&copy, internal::WrappedPacket(packets[i])), 0);
    if (gap) copy.size = static_cast<int>(SizeUpToSlice(*packets[i]));
    if (i > 12) after_gap.push_back(times.presentation);
    packets[i] = internal::WrapPacket(copy, video::kVideoCodecH264,
                                      {times.time_base_num, times.time_base_den, gap,
                                       gap ? video::kNoTime : times.presentation + 1000});
  }
  Receiver receiver;
  const auto decoder = OpenDecoder(receiver.Callback());
  SendAll(*decoder, packets);
  decoder->Drain(nullptr);
  std::vector<std::int64_t> marked;
  for (const FramePtr& frame : receiver.Frames(*decoder)) {
    const FrameLayout& layout = *LayoutOf(frame);
    EXPECT_EQ(layout.wall_clock_us, layout.presentation_time + 1000);
    if (layout.discontinuity) marked.push_back(layout.presentation_time);
  }
  EXPECT_THAT(marked, SizeIs(1));
  EXPECT_THAT(after_gap, ::testing::Contains(marked.front()));
}

TEST(PicturePool, UsesBuffersAgainAndKeepsNoMoreThanWereInUseAtOnce) {
  const auto pool = std::make_shared<PicturePool>();
  const auto use = [&pool](std::size_t count, std::size_t bytes) {
    std::vector<std::unique_ptr<PictureByte[]>> buffers(count);
    for (auto& buffer : buffers) buffer.reset(new (pool) PictureByte[bytes]);
    std::set<void*> addresses;
    for (auto& buffer : buffers) {
      std::memset(buffer.get(), 0xA5, bytes);
      addresses.insert(buffer.get());
    }
    return addresses;
  };
  const std::set<void*> first = use(5, 1000);
  EXPECT_EQ(pool->Kept(), 5U);
  EXPECT_EQ(use(5, 1000), first);
  for (std::size_t i = 0; i < 2 * PicturePool::kWindow; ++i) use(1, 1000);
  EXPECT_EQ(pool->Kept(), 1U) << "what a slow consumer piled up is gone";
  std::unique_ptr<PictureByte[]> old_size(new (pool) PictureByte[1000]);
  use(2, 500);
  EXPECT_EQ(pool->Kept(), 2U);
  old_size.reset();
  EXPECT_EQ(pool->Kept(), 2U) << "of the old size";
  use(0, 500);
  std::unique_ptr<PictureByte[]> last(new (pool) PictureByte[500]);
  pool->Close();
  EXPECT_EQ(pool->Kept(), 0U);
  last.reset();
  EXPECT_EQ(pool->Kept(), 0U);
}

// The planes hold their number + 1 in each sample.
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
      {AV_PIX_FMT_YUV420P, 4, 2, {-4, 2, 2}, kDecodeUnsupportedLayout, kNoFormat, 0, ""},
      {AV_PIX_FMT_YUV420P, 4, 2, {4, 2, -2}, kDecodeUnsupportedLayout, kNoFormat, 0, ""},
      {AV_PIX_FMT_YUV420P, 4, -2, {4, 2, 2}, kDecodeUnsupportedLayout, kNoFormat, 0, ""},
      {AV_PIX_FMT_YUV420P, 4, 2, {kBig, 2, 2}, kDecodePictureTooLarge, kNoFormat, 0, ""},
      {AV_PIX_FMT_YUV420P, 4, kBig, {kBig, kBig, kBig}, kDecodePictureTooLarge, kNoFormat, 0, ""},
      {AV_PIX_FMT_NONE, 4, 2, {4, 2, 2}, kDecodeUnsupportedFormat, kNoFormat, 0, ""},
      {AV_PIX_FMT_YUV444P, 4, 2, {4, 4, 4}, kDecodeUnsupportedFormat, kNoFormat, 0, ""},
  };
  const auto pool = std::make_shared<PicturePool>();
  std::vector<std::uint8_t> planes[3];
  for (const auto& c : cases) {
    const internal::FfmpegPtr<AVFrame> picture(av_frame_alloc());
    picture->format = c.format;
    picture->colorspace = AVCOL_SPC_BT709;
    picture->width = c.width;
    picture->height = c.height;
    for (int plane = 0; plane < 3; ++plane) {
      planes[plane].assign(4096, static_cast<std::uint8_t>(plane + 1));
      picture->data[plane] = planes[plane].data();
      picture->linesize[plane] = c.pitches[plane];
    }
    FramePtr frame;
    std::string refusal;
    EXPECT_EQ(CopyPicture(*picture, {}, pool, frame, refusal), c.status);
    ASSERT_EQ(frame != nullptr, c.status == kDecodeOk);
    EXPECT_EQ(refusal.rfind("decoded picture refused", 0) == 0, frame == nullptr) << refusal;
    if (frame == nullptr) continue;
    EXPECT_EQ(LayoutOf(frame)->matrix_coefficients, AVCOL_SPC_BT709);
    EXPECT_EQ(frame->pixel_format, c.result);
    EXPECT_EQ(frame->DataSize(), c.size);
    std::string samples = testing::Samples(frame);
    for (char& sample : samples) sample = static_cast<char>(sample + '0');
    EXPECT_EQ(samples, c.samples);
  }
}

TEST(ConvertAvPixelFormat, DiesOfUnknownFormats) {
  EXPECT_DEATH(ConvertAvPixelFormat(AV_PIX_FMT_NONE),
               "Check failed: it != av2qx_map.end\\(\\) not found pixel format -1");
}

}  // namespace
}  // namespace qx::utils::ffmpeg
