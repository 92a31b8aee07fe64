#include "qxtools/ffmpeg_demuxer.h"

#include <atomic>
#include <fstream>
#include <set>
#include <thread>
#include <tuple>

#include "qx_utils/ffmpeg_handles.h"
#include "qxtools/annexb_filter.h"
#include "qxtools/packet_times.h"
#include "tests/testing/temp_path.h"
#include "tests/testing/test.h"

namespace qx::utils::video {
namespace {

const std::string kClips = QXTOOLS_CLIPS_DIR "/";
const std::string kEndOfFile = " Read frame failed. ErrCode: -541478725";  // AVERROR_EOF

std::string WriteFile(const std::string& name, const std::string& bytes) {
  std::string path = testing::TempPath(name);
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

TEST(Factories, MakeIndependentDemuxersAndNothingElse) {
  EXPECT_EQ(Decoder::CreateInstance(), nullptr);
  EXPECT_EQ(Encoder::CreateInstance(), nullptr);
  const auto first = Demuxer::CreateInstance();
  const auto second = Demuxer::CreateInstance();
  ASSERT_EQ(first->Open(kClips + "left.mp4", {}), 0);
  const LogCapture log;
  EXPECT_EQ(second->ReadFrame(), nullptr);
  EXPECT_THAT(log.Messages(), ElementsAre("avformat_cxt_ is null"));
  EXPECT_NE(first->ReadFrame(), nullptr);
}

TEST(Demuxer, ChoosesTheFirstStreamItKnows) {
  const std::string video0 = "index: 0 codec_type=0", video1 = "index: 1 codec_type=0";
  const std::string audio0 = "index: 0 codec_type=1", audio = "Error codec_type 1";
  const std::string found0 = "found video stream index=0, codecId=27";
  const std::string found1 = "found video stream index=1, codecId=27";
  const std::string none = "Didn't find a video stream.";
  const std::string wrong = "Error unsupported format ";
  const struct {
    const char* clip;
    int index;
    VideoCodec codec;
    int packets;
    std::vector<std::string> errors, traces;
  } cases[] = {
      {"left.h264", 0, kVideoCodecH264, 24, {}, {video0, found0}},
      {"hevc.mp4", 0, kVideoCodecH265, 12, {}, {video0, "found video stream index=0, codecId=173"}},
      {"audio_first.mp4", 1, kVideoCodecH264, 24, {audio}, {audio0, video1, found1}},
      {"two_videos.mp4", 0, kVideoCodecH264, 12, {}, {video0, found0}},
      {"other_codec_first.mkv", 1, kVideoCodecH264, 24, {wrong + "12"}, {video0, video1, found1}},
      {"mjpeg.mkv", -1, kVideoCodecH264, 0, {wrong + "7", none}, {video0}},
      {"audio.m4a", -1, kVideoCodecH264, 0, {audio, none}, {audio0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.clip);
    FfmpegDemuxer demuxer;
    {
      const LogCapture log(2);
      ASSERT_EQ(demuxer.Open(kClips + c.clip, {}), c.index >= 0 ? 0 : -1);
      EXPECT_EQ(log.Messages(google::ERROR), c.errors);
      EXPECT_EQ(log.Messages(google::INFO), c.traces);
    }
    EXPECT_EQ(demuxer.VideoStreamIndex(), c.index);
    EXPECT_EQ(demuxer.LastFault(),
              c.index >= 0 ? DemuxerFault::kNone : DemuxerFault::kNoVideoStream);
    int packets = 0;
    const LogCapture log;
    while (const auto packet = demuxer.ReadFrame()) {
      ++packets;
      EXPECT_GT(packet->size, 0U);
      EXPECT_EQ(packet->codec, c.codec);
      EXPECT_EQ(packet->reserved0 | packet->reserved1 | packet->reserved2, 0U);
    }
    EXPECT_EQ(packets, c.packets);
    EXPECT_EQ(demuxer.ReadFrame(), nullptr);  // counts afresh
    EXPECT_THAT(log.Messages(), ElementsAreArray(std::vector<std::string>(6, kEndOfFile)));
    EXPECT_EQ(demuxer.LastFault(), DemuxerFault::kEndOfStream);
  }
}

TEST(Demuxer, RefusesWhatIsNoMediaAndOpensAgain) {
  const struct {
    std::string path, code;
    DemuxerFault fault;
  } cases[] = {
      {kClips + "absent.mp4", "-2", DemuxerFault::kRefused},
      {kClips, "-21", DemuxerFault::kRefused},  // a folder
      {WriteFile("empty.mp4", ""), "-1094995529", DemuxerFault::kMalformed},
      {WriteFile("noise.mp4", std::string(5000, '\x5A')), "-1094995529", DemuxerFault::kMalformed},
  };
  FfmpegDemuxer demuxer;
  int index = 7;
  EXPECT_EQ(demuxer.GetStreamInfo(nullptr, index), -1);
  EXPECT_EQ(index, 7);
  for (const auto& c : cases) {
    ASSERT_EQ(demuxer.Open(kClips + "audio_first.mp4", {}), 0);
    const LogCapture log;
    EXPECT_EQ(demuxer.Open(c.path, {}), -1);
    EXPECT_EQ(demuxer.LastFault(), c.fault);
    EXPECT_EQ(demuxer.VideoStreamIndex(), 1);  // as it was
    EXPECT_EQ(demuxer.ReadFrame(), nullptr);
    EXPECT_EQ(demuxer.LastFault(), DemuxerFault::kNotOpen);
    EXPECT_THAT(log.Messages(),
                ElementsAre("Open input stream FAILED: " + c.path + ", ret=" + c.code,
                            "pFormatCtx is null!.", "avformat_cxt_ is null"));
  }
}

TEST(Demuxer, PacketsAndInputsOutliveTheDemuxerAndGoOnAnyThread) {
  std::vector<std::shared_ptr<StreamPacket>> packets;
  std::shared_ptr<AVFormatContext> input;
  {
    FfmpegDemuxer demuxer;
    ASSERT_EQ(demuxer.Open(kClips + "left.mp4", {}), 0);
    while (auto packet = demuxer.ReadFrame()) packets.push_back(std::move(packet));
    input = demuxer.CreateFormatContext(kClips + "left.mp4");
  }
  ASSERT_EQ(packets.size(), 24U);
  std::atomic<unsigned> sum{0};
  const auto read = [&sum](std::vector<std::shared_ptr<StreamPacket>> own) {
    for (auto& packet : own) {
      sum += packet->data[packet->size - 1];
      packet.reset();
    }
  };
  std::thread reader(read, packets);
  read(std::move(packets));
  reader.join();
  EXPECT_GT(sum, 0U);
  AVPacket packet;
  internal::InitPacket(packet);
  EXPECT_EQ(av_read_frame(input.get(), &packet), 0);  // asks the demuxer's watch
  av_packet_unref(&packet);
}

TEST(Demuxer, PacketsTellTheirTimesBeforeAndAfterTheFilter) {
  const struct {
    const char* clip;
    bool timed;
    StreamTimes stream;
  } cases[] = {
      {"left.mp4", true, {25, 1, 960000}}, {"bframes.mp4", true, {25, 1, 960000}},
      {"hevc.mp4", true, {25, 1, 480000}}, {"left.h264", false, {25, 1, kNoTime}},
      {"left.ts", true, {25, 1, 960000}},
  };
  FfmpegDemuxer demuxer;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.clip);
    AnnexBFilter filter;
    ASSERT_EQ(demuxer.Open(kClips + c.clip, {}), 0);
    ASSERT_EQ(filter.Init(demuxer), 0);
    const StreamTimes stream = demuxer.GetStreamTimes();
    EXPECT_EQ(std::tie(stream.rate_num, stream.rate_den, stream.duration_us),
              std::tie(c.stream.rate_num, c.stream.rate_den, c.stream.duration_us));
    std::set<std::int64_t> shown;
    std::int64_t last = kNoTime;
    for (int i = 0; auto packet = demuxer.ReadFrame(); ++i) {
      for (const auto& form : {packet, filter.Filter(packet)}) {
        const auto times = PacketTimesOf(form);
        ASSERT_TRUE(times);
        EXPECT_EQ(times->discontinuity, &c != cases && i == 0);
        EXPECT_TRUE(times->key || i > 0);
        EXPECT_EQ(times->wall_clock_us, kNoTime);
        EXPECT_EQ(times->decoding != kNoTime, c.timed);
        EXPECT_TRUE(times->presentation >= times->decoding && times->decoding >= last);
        last = times->decoding;
        if (!c.timed) continue;
        shown.insert(times->presentation * 25 * times->time_base_num / times->time_base_den);
      }
    }
    // Each picture 1/25 s after another, whatever the order in the file.
    const auto pictures = static_cast<std::int64_t>(shown.size());
    EXPECT_TRUE(!c.timed || *shown.rbegin() - *shown.begin() == pictures - 1);
    EXPECT_TRUE(!c.timed || pictures * 40000 == c.stream.duration_us);
  }
  EXPECT_FALSE(PacketTimesOf(nullptr));
  EXPECT_FALSE(PacketTimesOf(std::make_shared<StreamPacket>()));
}

TEST(Demuxer, CancelStaysInForceUntilCleared) {
  FfmpegDemuxer demuxer;
  ASSERT_EQ(demuxer.Open(kClips + "left.mp4", {}), 0);
  std::thread([&demuxer] { demuxer.Cancel(); }).join();
  EXPECT_EQ(demuxer.ReadFrame(), nullptr);
  EXPECT_EQ(demuxer.LastFault(), DemuxerFault::kCancelled);
  EXPECT_EQ(demuxer.Open(kClips + "left.mp4", {}), -1);
  EXPECT_EQ(demuxer.LastFault(), DemuxerFault::kCancelled);
  demuxer.ClearCancel();
  EXPECT_EQ(demuxer.Open(kClips + "left.mp4", {}), 0);
  EXPECT_NE(demuxer.ReadFrame(), nullptr);
}

}  // namespace
}  // namespace qx::utils::video
