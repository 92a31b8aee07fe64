// The demuxer against RTSP peers that play, pause, die, freeze or misbehave at each stage.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <thread>

#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/packet_times.h"
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
  std::string name;  // stage and action
  DemuxerFault fault;
};

void ExpectFault(const Fault& row) {
  const std::size_t blank = row.name.find(' ');
  const RtspPeer server(
      {"rtsp_server.py", "fault", row.name.substr(0, blank), row.name.substr(blank + 1)});
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
      {"accept silent", timed_out},
      {"options silent", timed_out},
      {"describe silent", timed_out},
      {"setup silent", timed_out},
      {"play silent", timed_out},
      {"stream silent", timed_out},
      {"accept close", closed},
      {"options close", closed},
      {"describe close", closed},
      {"setup close", closed},
      {"play close", closed},
      {"stream close", closed},
      {"options error", DemuxerFault::kRefused},
      {"describe error", DemuxerFault::kRefused},
      {"play error", DemuxerFault::kRefused},
      {"setup refused", DemuxerFault::kUnsupportedTransport},
      {"describe trickle", timed_out},
      {"stream trickle", timed_out},
      {"describe garbage", timed_out},
      {"stream garbage", timed_out},
      {"describe huge", closed},
      {"describe badsdp", DemuxerFault::kNoVideoStream},
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

// The NAL units of an Annex B packet, whatever the start codes' length.
std::string Units(const StreamPacket& packet) {
  const std::string bytes(reinterpret_cast<const char*>(packet.data), packet.size);
  std::string units;
  std::size_t zeros = 0;
  for (const char c : bytes) {
    zeros = c == 0 ? zeros + 1 : 0;
    units += c;
    if (c == 1 && units.size() > 3 &&
        units.compare(units.size() - 4, 4, std::string("\0\0\0\1", 4)) == 0) {
      units.erase(units.size() - 4, 1);
    }
  }
  return units;
}

std::vector<std::string> PicturesOf(const std::string& clip) {
  FfmpegDemuxer demuxer;
  EXPECT_EQ(demuxer.Open(kClips + clip, {}), 0);
  std::vector<std::string> pictures;
  while (const auto packet = demuxer.ReadFrame()) pictures.push_back(Units(*packet));
  return pictures;
}

struct Camera {
  std::string name;
  std::vector<std::string> options;
  int pictures;             // to be read
  milliseconds open_limit;  // of SetTimeLimit(), during Open()
  milliseconds read_limit;  // and afterwards
  milliseconds cancel;      // Cancel() in these intervals
};

// Calls Cancel() again and again, from a thread of its own.
class Canceller {
 public:
  Canceller(FfmpegDemuxer& demuxer, milliseconds interval) {
    if (interval.count() == 0) return;
    thread_ = std::thread([this, &demuxer, interval] {
      while (!done_) {
        std::this_thread::sleep_for(interval);
        demuxer.Cancel();
      }
    });
  }
  ~Canceller() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

void ExpectEveryPicture(const Camera& row, const std::vector<std::string>& pictures) {
  std::vector<std::string> arguments = {"rtsp_camera.py", kClips + "left.h264"};
  arguments.insert(arguments.end(), row.options.begin(), row.options.end());
  const RtspPeer camera(arguments);
  ASSERT_TRUE(camera.started());
  FfmpegDemuxer demuxer;
  demuxer.SetTimeLimit(row.open_limit);
  auto begin = steady_clock::now();
  ASSERT_EQ(demuxer.Open(camera.url(), {}), 0);
  EXPECT_LT(steady_clock::now() - begin, seconds(8));
  demuxer.SetTimeLimit(row.read_limit);
  const bool in_pieces = row.read_limit.count() + row.cancel.count() > 0;
  const Canceller canceller(demuxer, row.cancel);
  const auto end = steady_clock::now() + seconds(60);
  for (int i = 0; i < row.pictures;) {
    begin = steady_clock::now();
    const auto packet = demuxer.ReadFrame();
    const auto took = steady_clock::now() - begin;
    EXPECT_TRUE(!in_pieces || took < seconds(2));
    EXPECT_EQ(packet != nullptr, demuxer.LastFault() == DemuxerFault::kNone);
    demuxer.ClearCancel();
    if (packet == nullptr) {
      ASSERT_TRUE(in_pieces && steady_clock::now() < end) << i << " pictures";
      continue;
    }
    ASSERT_EQ(Units(*packet), pictures[static_cast<std::size_t>(i) % pictures.size()]) << i;
    EXPECT_FALSE(PacketTimesOf(packet)->discontinuity);
    ++i;
  }
}

// FFmpeg's interruption threw away what a call had read: after a limit or a cancel pictures were
// missing or cut short, or nothing came any more. And audio did not count as a sign of life.
TEST(Rtsp, LimitsAndCancelsCostNoPicture) {
  const milliseconds none(0);
  const std::vector<Camera> rows = {
      {"audio goes on while the video pauses",
       {"--audio", "--pause", "40:11"},
       50,
       none,
       none,
       none},
      {"short limits", {}, 150, none, milliseconds(20), none},
      {"a limit while probing", {"--fps", "5"}, 20, milliseconds(600), none, none},
      {"cancelled again and again", {}, 150, none, none, milliseconds(30)},
      {"a picture a second", {"--fps", "1"}, 12, none, none, none},
      {"a stall within a packet", {"--stall", "40:2"}, 80, none, milliseconds(150), none},
      {"a slow link", {"--bandwidth", "4000"}, 8, none, milliseconds(150), none},
      {"a link that is almost fast enough",
       {"--bandwidth", "60000"},
       40,
       none,
       none,
       milliseconds(250)},
  };
  const std::vector<std::string> pictures = PicturesOf("left.h264");
  ForAllAtOnce(rows, [&pictures](const Camera& row) { ExpectEveryPicture(row, pictures); });
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
  demuxer.ReadFrame();  // FFmpeg does not know its time
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
