#include "qxtools/annexb_filter.h"

#include <cstring>
#include <fstream>
#include <iterator>

#include "qx_utils/video/stream_packet.h"
#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/reconnecting_demuxer.h"
#include "tests/testing/temp_path.h"
#include "tests/testing/test.h"

namespace qx::utils::video {
namespace {

const std::string kClips = QXTOOLS_CLIPS_DIR "/";

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Bytes(const StreamPacket& packet) {
  return {reinterpret_cast<const char*>(packet.data), packet.size};
}

std::shared_ptr<StreamPacket> MakePacket(const std::string& bytes, int flags) {
  AVPacket packet;
  internal::InitPacket(packet);
  EXPECT_EQ(av_new_packet(&packet, static_cast<int>(bytes.size())), 0);
  std::memcpy(packet.data, bytes.data(), bytes.size());
  packet.flags = flags;
  return internal::WrapPacket(packet, kVideoCodecH264);
}

// A clip, and a filter that is ready for it.
struct Opened {
  explicit Opened(const std::string& clip) {
    EXPECT_EQ(demuxer.Open(kClips + clip, {}), 0);
    EXPECT_EQ(filter.Init(static_cast<const Demuxer&>(demuxer)), 0);
  }
  FfmpegDemuxer demuxer;
  AnnexBFilter filter;
};

TEST(AnnexBFilter, GivesTheBytesOfTheRawStream) {
  const struct {
    const char *clip, *raw;
    bool passes;
  } cases[] = {
      {"left.mp4", "left.h264", false},
      {"left.mkv", "left.h264", false},
      {"left.h264", "left.h264", true},
      {"audio_first.mp4", "left.h264", false},
      {"bframes.mp4", "bframes.h264", false},
      {"cropped.mp4", "cropped.h264", false},
      {"hevc.mp4", "hevc.h265", false},
      {"hevc.h265", "hevc.h265", true},
      {"left.ts", nullptr, true},
      {"size_change.h264", "size_change.h264", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.clip);
    Opened clip(c.clip);
    std::string bytes;
    while (const auto packet = clip.demuxer.ReadFrame()) {
      const auto annexb = clip.filter.Filter(packet);
      ASSERT_NE(annexb, nullptr);
      EXPECT_EQ(annexb == packet, c.passes);
      EXPECT_EQ(annexb->codec, packet->codec);
      bytes += Bytes(*annexb);
    }
    EXPECT_TRUE(c.raw == nullptr || bytes == ReadFile(kClips + c.raw));
  }
}

// RTSP cameras that name their parameter sets in the session description send none in the stream.
TEST(AnnexBFilter, AddsParameterSetsOnlyWhereTheStreamHasNone) {
  Opened clip("left.h264");
  const std::string full = Bytes(*clip.demuxer.ReadFrame());
  const std::string slice = full.substr(full.find(std::string("\0\0\1\x65", 4)));
  const auto bare_key = MakePacket(slice, AV_PKT_FLAG_KEY);
  const auto completed = clip.filter.Filter(bare_key);
  ASSERT_NE(completed, nullptr);
  EXPECT_EQ(Bytes(*completed).substr(0, 4), std::string("\0\0\1\x67", 4));
  EXPECT_EQ(Bytes(*completed).substr(completed->size - slice.size()), slice);
  EXPECT_EQ(Bytes(*bare_key), slice);

  const auto other = MakePacket(std::string("\0\0\1\x41", 4) + slice.substr(4), 0);  // no IDR slice
  const auto own_sets =
      MakePacket(std::string("\0\0\1\x67", 4), AV_PKT_FLAG_KEY);  // as short as can be
  for (const auto& same : {other, own_sets, bare_key}) EXPECT_EQ(clip.filter.Filter(same), same);
}

// A file that begins at a recovery point never got its parameter sets: FFmpeg's filter puts them
// before IDR pictures alone.
TEST(AnnexBFilter, PutsParameterSetsBeforeEveryPictureThatCanBegin) {
  Opened clip("left.mp4");
  clip.demuxer.ReadFrame();
  const std::string slice = Bytes(*clip.demuxer.ReadFrame());  // of a picture that refers to others
  const std::string delimiter("\0\0\0\2\x09\xF0", 6);
  const std::string prefix("\0\0\0\4\x6E\x40\x00\x07", 8);
  const struct {
    std::string before;
    int flags;
    std::vector<int> units;
  } rows[] = {
      {"", 0, {7, 8, 1}},  // the first picture
      {"", 0, {1}},
      {"", AV_PKT_FLAG_KEY, {7, 8, 1}},
      {prefix, AV_PKT_FLAG_KEY, {7, 8, 14, 1}},
      {delimiter, 0, {9, 1}},
      {delimiter, AV_PKT_FLAG_KEY, {9, 7, 8, 1}},
  };
  const std::string start_code("\0\0\1", 3);
  for (const auto& row : rows) {
    const auto annexb = clip.filter.Filter(MakePacket(row.before + slice, row.flags));
    ASSERT_NE(annexb, nullptr);
    std::vector<int> units;
    const std::string bytes = Bytes(*annexb);
    for (std::size_t at = 0; (at = bytes.find(start_code, at)) != std::string::npos;) {
      units.push_back(bytes[at += 3] & 0x1F);
    }
    EXPECT_EQ(units, row.units);
    EXPECT_EQ(bytes.substr(bytes.size() - slice.size() + 4), slice.substr(4));
  }
}

TEST(AnnexBFilter, RefusesDamageAndGoesOn) {
  Opened clip("left.mp4");
  const auto good = clip.demuxer.ReadFrame();
  const std::string expected = Bytes(*clip.filter.Filter(good));
  const LogCapture log;
  std::string too_long = Bytes(*good);
  too_long[0] = '\x7F';  // longer than the packet
  // Empty NAL units alone came out as a packet without bytes, which no decoder takes.
  for (const std::string& damaged : {too_long, std::string(8, '\0')}) {
    EXPECT_EQ(clip.filter.Filter(MakePacket(damaged, AV_PKT_FLAG_KEY)), nullptr);
  }
  EXPECT_EQ(log.Messages(google::ERROR).size(), 2U);
  EXPECT_EQ(Bytes(*clip.filter.Filter(good)), expected);

  const auto own = std::make_shared<StreamPacket>();  // made by the application
  std::string copy = Bytes(*good);
  own->data = reinterpret_cast<std::uint8_t*>(&copy[0]);
  own->size = copy.size();
  EXPECT_EQ(Bytes(*clip.filter.Filter(own)), expected);
  // Of a size above 32 bits only the lower half was looked at.
  own->size += std::uint64_t{1} << 32U;
  EXPECT_EQ(clip.filter.Filter(own), nullptr);
}

// FFmpeg made 65,535 empty parameter sets of a record that announces more than it holds.
TEST(AnnexBFilter, RefusesParameterSetsThatAreCutOff) {
  const std::string whole = ReadFile(kClips + "hevc.mp4");
  const std::size_t arrays = whole.find("hvcC") + 4 + 22;
  const std::string path = testing::TempPath("cut.mp4");
  for (const std::size_t count : {0U, 2U, 4U}) {  // of arrays, sets, bytes
    std::string cut = whole;
    cut[arrays + count] = '\x7F';
    std::ofstream(path, std::ios::binary) << cut;
    FfmpegDemuxer demuxer;
    AnnexBFilter filter;
    ASSERT_EQ(demuxer.Open(path, {}), 0);
    const LogCapture log;
    EXPECT_EQ(filter.Init(demuxer), -1);
    EXPECT_THAT(log.Messages(google::ERROR),
                ElementsAre("Annex B filter: the stream's parameter sets are cut off"));
  }
}

TEST(AnnexBFilter, SaysWhenThereIsNothingToFilter) {
  FfmpegDemuxer demuxer;
  AnnexBFilter filter;
  const auto empty = std::make_shared<StreamPacket>();
  const LogCapture log;
  EXPECT_EQ(filter.Filter(nullptr), nullptr);
  EXPECT_EQ(filter.Filter(empty), nullptr);
  EXPECT_EQ(filter.Init(demuxer), -1);
  EXPECT_THAT(log.Messages(), ElementsAre("Annex B filter: not prepared for a stream",
                                          "Annex B filter: the demuxer has no video stream open"));
  ASSERT_EQ(demuxer.Open(kClips + "left.mp4", {}), 0);
  ASSERT_EQ(filter.Init(demuxer), 0);
  EXPECT_EQ(filter.Filter(nullptr), nullptr);
  EXPECT_EQ(filter.Filter(empty), empty);  // drains a decoder
  ASSERT_EQ(filter.Init(ReconnectingDemuxer()), 0);
  const auto packet = demuxer.ReadFrame();
  EXPECT_EQ(filter.Filter(packet), packet);  // its packets are ready
}

}  // namespace
}  // namespace qx::utils::video
