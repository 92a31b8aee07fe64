// The demuxer against RTSP servers that play, die, freeze or misbehave at each stage.
#include <signal.h>

#include <chrono>
#include <ostream>
#include <thread>

#include "qxtools/ffmpeg_demuxer.h"
#include "tests/testing/rtsp_peer.h"
#include "tests/testing/test.h"

namespace qx {
namespace utils {
namespace video {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

using qx::testing::RtspPeer;

const std::string kClips = QXTOOLS_CLIPS_DIR "/";

struct Fault {
  const char *stage, *action;
  DemuxerFault fault;
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.stage << ' ' << fault.action; }

class RtspFault : public ::testing::TestWithParam<Fault> {};

TEST_P(RtspFault, ComesBackInTimeAndOpensAgain) {
  const RtspPeer server({"rtsp_server.py", "fault", GetParam().stage, GetParam().action});
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
  EXPECT_EQ(demuxer.LastFault(), GetParam().fault);
  ASSERT_EQ(demuxer.Open(kClips + "left.mp4", {}), 0);
  EXPECT_NE(demuxer.ReadFrame(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Stages, RtspFault,
    ::testing::Values(Fault{"accept", "silent", DemuxerFault::kTimedOut},
                      Fault{"options", "silent", DemuxerFault::kTimedOut},
                      Fault{"describe", "silent", DemuxerFault::kTimedOut},
                      Fault{"setup", "silent", DemuxerFault::kTimedOut},
                      Fault{"play", "silent", DemuxerFault::kTimedOut},
                      Fault{"stream", "silent", DemuxerFault::kTimedOut},
                      Fault{"accept", "close", DemuxerFault::kClosedByPeer},
                      Fault{"options", "close", DemuxerFault::kClosedByPeer},
                      Fault{"describe", "close", DemuxerFault::kClosedByPeer},
                      Fault{"setup", "close", DemuxerFault::kClosedByPeer},
                      Fault{"play", "close", DemuxerFault::kClosedByPeer},
                      Fault{"stream", "close", DemuxerFault::kClosedByPeer},
                      Fault{"options", "error", DemuxerFault::kRefused},
                      Fault{"describe", "error", DemuxerFault::kRefused},
                      Fault{"play", "error", DemuxerFault::kRefused},
                      Fault{"describe", "trickle", DemuxerFault::kTimedOut},
                      Fault{"stream", "trickle", DemuxerFault::kTimedOut},
                      Fault{"describe", "garbage", DemuxerFault::kTimedOut},
                      Fault{"stream", "garbage", DemuxerFault::kTimedOut},
                      Fault{"describe", "huge", DemuxerFault::kClosedByPeer},
                      Fault{"describe", "badsdp", DemuxerFault::kNoVideoStream}),
    [](const auto& info) { return std::string(info.param.stage) + "_" + info.param.action; });

TEST(Rtsp, PlaysTheVideoAndSkipsTheAudioBeforeIt) {
  RtspPeer server({"rtsp_server.py", "serve", kClips + "left.h264", "--audio"});
  START_OR_SKIP(server);
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
  RtspPeer server({"rtsp_server.py", "serve", kClips + "left.h264"});
  START_OR_SKIP(server);
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

TEST(Rtsp, NobodyListens) {
  FfmpegDemuxer demuxer;
  EXPECT_EQ(demuxer.Open("rtsp://127.0.0.1:1/cam", {}), -1);
  EXPECT_EQ(demuxer.LastFault(), DemuxerFault::kRefused);
}

TEST(Rtsp, TimeLimitAndCancelEndAWait) {
  const RtspPeer server({"rtsp_server.py", "fault", "describe", "silent"});
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
}  // namespace video
}  // namespace utils
}  // namespace qx
