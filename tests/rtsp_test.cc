// The demuxer against RTSP peers that play, pause, die, freeze or misbehave at each stage.
#include <signal.h>

#include <chrono>
#include <functional>
#include <thread>

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

// Runs `check` with every row at the same time: most of them wait most of the time.
template <typename Rows>
void ForAllAtOnce(const Rows& rows,
                  const std::function<void(const typename Rows::value_type&)>& check) {
  std::vector<std::thread> threads;
  threads.reserve(rows.size());
  for (const auto& row : rows) {
    threads.emplace_back([&row, &check] {
      SCOPED_TRACE(row.name);
      check(row);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

struct Fault {
  std::string name;  // stage:action
  DemuxerFault fault;
};

void ExpectFault(const Fault& row) {
  const RtspPeer server({"rtsp_camera.py", kClips + "left.h264", "--fault", row.name});
  ASSERT_TRUE(server.started());
  FfmpegDemuxer demuxer;
  auto begin = steady_clock::now();
  const int result = demuxer.Open(server.url(), {});
  EXPECT_LT(steady_clock::now() - begin, seconds(8));
  if (result == 0) {  // the session description told enough
    begin = steady_clock::now();
    EXPECT_EQ(demuxer.ReadFrame(), nullptr);
    EXPECT_LT(steady_clock::now() - begin, seconds(10));
  }
  EXPECT_EQ(static_cast<int>(demuxer.LastFault()), static_cast<int>(row.fault));
  ASSERT_EQ(demuxer.Open(kClips + "left.mp4", {}), 0);
  EXPECT_NE(demuxer.ReadFrame(), nullptr);
}

TEST(Rtsp, FaultsEndInTimeWithTheirNames) {
  const DemuxerFault timed_out = DemuxerFault::kTimedOut;
  const DemuxerFault closed = DemuxerFault::kClosedByPeer;
  const std::vector<Fault> rows = {
      {"accept:silent", timed_out},
      {"options:silent", timed_out},
      {"describe:silent", timed_out},
      {"setup:silent", timed_out},
      {"play:silent", timed_out},
      {"stream:silent", timed_out},
      {"accept:close", closed},
      {"options:close", closed},
      {"describe:close", closed},
      {"setup:close", closed},
      {"play:close", closed},
      {"stream:close", closed},
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
  };
  ForAllAtOnce(rows, ExpectFault);
}

// A mistyped name or port was called a connection that the peer had closed.
TEST(Rtsp, SaysWhenThereIsNobodyToTalkTo) {
  const struct {
    const char* url;
    DemuxerFault fault;
  } rows[] = {
      {"rtsp://127.0.0.1:1/cam", DemuxerFault::kRefused},
      {"rtsp://127.0.0.1:99999/cam", DemuxerFault::kUnreachable},
      {"rtsp://no.such.host.invalid/cam", DemuxerFault::kUnreachable},
      {"http://no.such.host.invalid/clip.mp4", DemuxerFault::kUnreachable},
  };
  FfmpegDemuxer demuxer;
  for (const auto& row : rows) {
    EXPECT_EQ(demuxer.Open(row.url, {}), -1);
    EXPECT_EQ(static_cast<int>(demuxer.LastFault()), static_cast<int>(row.fault)) << row.url;
  }
}

// Times of pictures are those of the RTP packets; wall clocks were off by a picture, and by half a
// day after the RTP clock had wrapped around.
TEST(Rtsp, PicturesTellTheSendersClock) {
  const RtspPeer camera({"rtsp_camera.py", kClips + "left.h264", "--reports"});
  ASSERT_TRUE(camera.started());
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
  const RtspPeer server({"rtsp_camera.py", kClips + "left.h264", "--audio"});
  ASSERT_TRUE(server.started());
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

// Reads until the server that got `signal` in mid-stream is noticed, then opens another input.
void ExpectNoticed(int signal, DemuxerFault fault) {
  const RtspPeer server({"rtsp_camera.py", kClips + "left.h264"});
  ASSERT_TRUE(server.started());
  FfmpegDemuxer demuxer;
  ASSERT_EQ(demuxer.Open(server.url(), {}), 0);
  ASSERT_NE(demuxer.ReadFrame(), nullptr);
  server.Signal(signal);
  auto begin = steady_clock::now();
  while (demuxer.ReadFrame()) begin = steady_clock::now();  // what had arrived before
  EXPECT_LT(steady_clock::now() - begin, seconds(10));
  EXPECT_EQ(demuxer.LastFault(), fault);
  ASSERT_EQ(demuxer.Open(kClips + "left.mp4", {}), 0);
  EXPECT_NE(demuxer.ReadFrame(), nullptr);
}

TEST(Rtsp, NoticesAKilledServer) { ExpectNoticed(SIGKILL, DemuxerFault::kClosedByPeer); }

TEST(Rtsp, NoticesAFrozenServer) { ExpectNoticed(SIGSTOP, DemuxerFault::kTimedOut); }

TEST(Rtsp, TimeLimitAndCancelEndAWait) {
  const RtspPeer server({"rtsp_camera.py", kClips + "left.h264", "--fault", "describe:silent"});
  ASSERT_TRUE(server.started());
  FfmpegDemuxer demuxer;
  demuxer.SetTimeLimit(milliseconds(300));
  auto begin = steady_clock::now();
  EXPECT_EQ(demuxer.Open(server.url(), {}), -1);
  EXPECT_LT(steady_clock::now() - begin, seconds(2));
  EXPECT_EQ(demuxer.LastFault(), DemuxerFault::kTimedOut);

  demuxer.SetTimeLimit(milliseconds(0));
  begin = steady_clock::now();
  std::thread other([&demuxer] {
    std::this_thread::sleep_for(milliseconds(200));
    demuxer.Cancel();
  });
  EXPECT_EQ(demuxer.Open(server.url(), {}), -1);
  EXPECT_LT(steady_clock::now() - begin, seconds(2));
  EXPECT_EQ(demuxer.LastFault(), DemuxerFault::kCancelled);
  other.join();
}

}  // namespace
}  // namespace qx::utils::video
