// The demuxer against RTSP peers that play, pause, die, freeze or misbehave at each stage.
#include <signal.h>

#include <chrono>
#include <thread>
#include <utility>

#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/packet_times.h"
#include "tests/testing/rtsp_peer.h"
#include "tests/testing/test.h"

namespace qx::utils::video {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

using qx::testing::RtspPeer;

const std::string kClips = QXTOOLS_CLIPS_DIR "/";

struct Fault {
  std::string name;  // stage:action
  DemuxerFault fault;
  int signal = 0;  // that the camera gets in mid-stream instead
};

void ExpectFault(const Fault& row) {
  SCOPED_TRACE(row.name);
  const RtspPeer server("left.h264", row.signal == 0 ? "--fault " + row.name : "");
  FfmpegDemuxer demuxer;
  auto begin = steady_clock::now();
  const int result = demuxer.Open(server.url(), {});
  EXPECT_LT(steady_clock::now() - begin, seconds(8));
  if (row.signal != 0) {
    EXPECT_NE(demuxer.ReadFrame(), nullptr);
    server.Signal(row.signal);
  }
  begin = steady_clock::now();
  // Opened, where the session description told enough. Pictures may have arrived before.
  while (result == 0 && demuxer.ReadFrame()) {
    EXPECT_NE(row.signal, 0);
    begin = steady_clock::now();
  }
  EXPECT_LT(steady_clock::now() - begin, seconds(10));
  EXPECT_EQ(static_cast<int>(demuxer.LastFault()), static_cast<int>(row.fault));
  ASSERT_EQ(demuxer.Open(kClips + "left.mp4", {}), 0);
  EXPECT_NE(demuxer.ReadFrame(), nullptr);
}

// All at the same time: most of them wait most of the time.
TEST(Rtsp, FaultsEndInTimeWithTheirNames) {
  const DemuxerFault timed_out = DemuxerFault::kTimedOut;
  const DemuxerFault closed = DemuxerFault::kClosedByPeer;
  std::vector<Fault> rows = {
      {"options:error", DemuxerFault::kRefused},
      {"describe:error", DemuxerFault::kRefused},
      {"play:error", DemuxerFault::kRefused},
      {"setup:refused", DemuxerFault::kUnsupportedTransport},
      {"describe:trickle", timed_out},
      {"stream:trickle", timed_out},
      {"describe:garbage", timed_out},
      {"stream:garbage", timed_out},
      {"describe:huge", closed},
      {"describe:badsdp", DemuxerFault::kNoVideoStream},
      {"killed", closed, SIGKILL},
      {"frozen", timed_out, SIGSTOP},
  };
  for (const std::string stage : {"accept", "options", "describe", "setup", "play", "stream"}) {
    rows.push_back({stage + ":silent", timed_out});
    rows.push_back({stage + ":close", closed});
  }
  std::vector<std::thread> threads;
  threads.reserve(rows.size());
  for (const Fault& row : rows) threads.emplace_back(ExpectFault, row);
  for (std::thread& thread : threads) thread.join();
}

// A mistyped name or port was called a connection that the peer had closed.
TEST(Rtsp, SaysWhenThereIsNobodyToTalkTo) {
  const std::pair<const char*, DemuxerFault> rows[] = {
      {"rtsp://127.0.0.1:1/cam", DemuxerFault::kRefused},
      {"rtsp://127.0.0.1:99999/cam", DemuxerFault::kUnreachable},
      {"rtsp://no.such.host.invalid/cam", DemuxerFault::kUnreachable},
      {"http://no.such.host.invalid/clip.mp4", DemuxerFault::kUnreachable},
  };
  FfmpegDemuxer demuxer;
  for (const auto& [url, fault] : rows) {
    EXPECT_EQ(demuxer.Open(url, {}), -1);
    EXPECT_EQ(static_cast<int>(demuxer.LastFault()), static_cast<int>(fault)) << url;
  }
}

// Times of pictures are those of the RTP packets; wall clocks were off by a picture, and by half a
// day after the RTP clock had wrapped around.
TEST(Rtsp, PicturesTellTheSendersClock) {
  const RtspPeer camera("left.h264", "--reports");
  FfmpegDemuxer demuxer;
  const auto now = [] {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  const auto begin = now();
  ASSERT_EQ(demuxer.Open(camera.url(), {}), 0);
  // FFmpeg does not know the first picture's time, and once made up one of 0.24 s.
  EXPECT_THAT(PacketTimesOf(demuxer.ReadFrame())->presentation, AnyOf(kNoTime, 0));
  std::int64_t offset = kNoTime;
  for (int i = 1; i < 50; ++i) {
    const auto times = PacketTimesOf(demuxer.ReadFrame());
    ASSERT_TRUE(times);
    ASSERT_EQ(times->presentation * 25 * times->time_base_num, i * times->time_base_den);
    if (offset == kNoTime) offset = times->wall_clock_us;
    EXPECT_NEAR(static_cast<double>(times->wall_clock_us - offset), (i - 1) * 40000.0, 1000.0);
  }
  EXPECT_GT(offset, begin);
  EXPECT_LT(offset, now());
}

TEST(Rtsp, PlaysTheVideoAndSkipsTheAudioBeforeIt) {
  const RtspPeer server("left.h264", "--audio");
  FfmpegDemuxer demuxer;
  const LogCapture log;
  ASSERT_EQ(demuxer.Open(server.url(), {}), 0);
  EXPECT_EQ(demuxer.VideoStreamIndex(), 1);
  for (int i = 0; i < 40; ++i) {  // beyond the end of the clip, which the server repeats
    const auto packet = demuxer.ReadFrame();
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(packet->codec, kVideoCodecH264);
  }
  EXPECT_EQ(log.Messages(google::ERROR), std::vector<std::string>{"Error codec_type 1"});
}

TEST(Rtsp, TimeLimitAndCancelEndAWait) {
  const RtspPeer server("left.h264", "--fault describe:silent");
  const std::pair<milliseconds, DemuxerFault> rows[] = {
      {milliseconds(300), DemuxerFault::kTimedOut}, {milliseconds(0), DemuxerFault::kCancelled}};
  for (const auto& [limit, fault] : rows) {
    FfmpegDemuxer demuxer;
    demuxer.SetTimeLimit(milliseconds(1));
    demuxer.SetTimeLimit(limit);
    std::thread other([&demuxer] {
      std::this_thread::sleep_for(seconds(1));
      demuxer.Cancel();
    });
    const auto begin = steady_clock::now();
    EXPECT_EQ(demuxer.Open(server.url(), {}), -1);
    EXPECT_LT(steady_clock::now() - begin, seconds(3));
    EXPECT_EQ(demuxer.LastFault(), fault);
    other.join();
  }
}

}  // namespace
}  // namespace qx::utils::video
