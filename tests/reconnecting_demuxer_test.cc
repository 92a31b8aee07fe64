// The demuxer that keeps a camera open, against cameras that are lost in every way.
#include "qxtools/reconnecting_demuxer.h"

#include <signal.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <thread>

#include "tests/testing/rtsp_peer.h"
#include "tests/testing/test.h"

namespace qx::utils::video {

void PrintTo(DemuxerFault fault, std::ostream* out) { *out << static_cast<int>(fault); }

namespace {

using qx::testing::RtspPeer;
using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::Field;
using ::testing::Ge;
using ::testing::Le;

const std::string kClips = QXTOOLS_CLIPS_DIR "/";

ReconnectPolicy Quick() {
  ReconnectPolicy policy;
  policy.first_pause = milliseconds(50);
  policy.longest_pause = milliseconds(400);
  policy.longest_silence = milliseconds(1000);
  return policy;
}

// Opens `url` and keeps what it was told.
class Camera {
 public:
  explicit Camera(const std::string& url) : reader_(Quick()) {
    reader_.SetStateCallback([this](const ConnectionChange& change) {
      changes_.push_back(change);
      if (on_change_) on_change_(change);
    });
    result_ = reader_.Open(url, {});
  }

  ReconnectingDemuxer& reader() { return reader_; }
  int result() const { return result_; }
  const std::vector<ConnectionChange>& changes() const { return changes_; }
  void OnChange(std::function<void(const ConnectionChange&)> action) { on_change_ = action; }

  // Reads `count` packets, or fewer when they end. Returns: the numbers of those after a gap.
  std::vector<int> ReadAndFindGaps(int count) {
    std::vector<int> gaps;
    for (int i = 0; i < count; ++i) {
      const auto packet = reader_.ReadFrame();
      const auto times = PacketTimesOf(packet);
      if (!times) break;
      if (times->discontinuity) gaps.push_back(i);
    }
    return gaps;
  }

 private:
  ReconnectingDemuxer reader_;
  std::vector<ConnectionChange> changes_;
  std::function<void(const ConnectionChange&)> on_change_;
  int result_ = -1;
};

// Fields: state, reason, failures; pauses are random.
MATCHER_P3(Change, state, reason, failures, "") {
  return arg.state == state && arg.reason == reason && arg.failures == failures;
}

constexpr ConnectionState kOpen = ConnectionState::kOpen;
constexpr ConnectionState kWaiting = ConnectionState::kWaiting;
constexpr ConnectionState kEnded = ConnectionState::kEnded;

struct Loss {
  const char *name, *file;
  std::vector<std::string> options;
  DemuxerFault reason;
  int pictures;  // that arrive; FFmpeg keeps one until the next begins or the connection ends
};

void PrintTo(const Loss& loss, std::ostream* out) { *out << loss.name; }

class Reconnecting : public ::testing::TestWithParam<Loss> {};

// Each camera gives 40 pictures and is lost. It serves one client at a time, so that it could not
// be opened again while the lost connection is open.
TEST_P(Reconnecting, OpensAgainAndMarksTheGap) {
  std::vector<std::string> arguments = {"rtsp_camera.py", kClips + GetParam().file, "--single",
                                        "--fps", "50"};
  for (const std::string& option : GetParam().options) arguments.push_back(option);
  const RtspPeer peer(arguments);
  ASSERT_TRUE(peer.started());
  Camera camera(peer.url());
  ASSERT_EQ(camera.result(), 0);
  EXPECT_THAT(camera.ReadAndFindGaps(50), ElementsAre(GetParam().pictures));
  // Attempts may come before the peer has noticed that its client is gone.
  const auto& changes = camera.changes();
  ASSERT_GE(changes.size(), 3U);
  EXPECT_THAT(changes[0], Change(kOpen, DemuxerFault::kNone, 0U));
  EXPECT_THAT(changes[1], Change(kWaiting, GetParam().reason, 0U));
  EXPECT_THAT(changes.back(), Change(kOpen, DemuxerFault::kNone, 0U));
}

INSTANTIATE_TEST_SUITE_P(
    Losses, Reconnecting,
    ::testing::Values(
        Loss{"closes", "left.h264", {"--close-after", "40"}, DemuxerFault::kClosedByPeer, 40},
        Loss{"encoder_hangs",
             "hevc.h265",
             {"--audio", "--stop-after", "40"},
             DemuxerFault::kTimedOut,
             39}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ReconnectingDemuxer, FindsAServerThatWasKilledAndStartedAgain) {
  auto peer = std::make_unique<RtspPeer>(
      std::vector<std::string>{"rtsp_camera.py", kClips + "left.h264", "--described"});
  ASSERT_TRUE(peer->started());
  Camera camera(peer->url());
  camera.OnChange([&](const ConnectionChange& change) {
    if (change.failures != 2) return;
    peer = std::make_unique<RtspPeer>(std::vector<std::string>{
        "rtsp_camera.py", kClips + "left.h264", "--described", "--port", peer->port()});
  });
  EXPECT_THAT(camera.ReadAndFindGaps(35), IsEmpty());
  peer->Signal(SIGKILL);
  EXPECT_THAT(camera.ReadAndFindGaps(60), SizeIs(1));
  EXPECT_THAT(camera.changes(), ElementsAre(Change(kOpen, DemuxerFault::kNone, 0U),
                                            Change(kWaiting, DemuxerFault::kClosedByPeer, 0U),
                                            Change(kWaiting, DemuxerFault::kRefused, 1U),
                                            Change(kWaiting, DemuxerFault::kRefused, 2U),
                                            Change(kOpen, DemuxerFault::kNone, 0U)));
}

TEST(ReconnectingDemuxer, PausesGrowUntilCancelled) {
  const RtspPeer peer({"rtsp_camera.py", kClips + "left.h264", "--auth", "digest"});
  ASSERT_TRUE(peer.started());
  Camera camera(peer.url());  // without a password
  EXPECT_EQ(camera.result(), -1);
  camera.OnChange([&](const ConnectionChange& change) {
    if (change.failures == 5) camera.reader().Cancel();
  });
  EXPECT_EQ(camera.reader().ReadFrame(), nullptr);
  EXPECT_EQ(camera.reader().LastFault(), DemuxerFault::kCancelled);
  EXPECT_THAT(camera.changes(), Each(Field(&ConnectionChange::reason, DemuxerFault::kRefused)));
  std::vector<std::int64_t> pauses;
  for (const auto& change : camera.changes()) pauses.push_back(change.pause.count());
  const auto from = [](int least, int most) { return AllOf(Ge(least), Le(most)); };
  EXPECT_THAT(pauses, ElementsAre(from(40, 50), from(80, 100), from(160, 200), from(320, 400),
                                  from(320, 400)));
}

// Another thread cancels a pause of half a minute, a wait for an answer and a read in mid-stream.
TEST(ReconnectingDemuxer, CancelEndsAnyWaitAndReadingGoesOn) {
  const RtspPeer silent({"rtsp_camera.py", kClips + "left.h264", "--fault", "describe:silent"});
  const RtspPeer slow({"rtsp_camera.py", kClips + "left.h264", "--pause", "35:2"});
  ReconnectPolicy policy;
  policy.first_pause = seconds(30);
  for (const std::string& url : {std::string("rtsp://127.0.0.1:1/cam"), silent.url(), slow.url()}) {
    ReconnectingDemuxer reader(policy);
    std::thread other([&reader] {
      std::this_thread::sleep_for(milliseconds(1500));
      reader.Cancel();
    });
    const auto begin = std::chrono::steady_clock::now();
    reader.Open(url, {});
    while (reader.ReadFrame()) continue;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, seconds(4)) << url;
    EXPECT_EQ(reader.LastFault(), DemuxerFault::kCancelled) << url;
    other.join();
    if (url != slow.url()) continue;
    reader.ClearCancel();
    const auto next = reader.ReadFrame();
    ASSERT_NE(next, nullptr);
    EXPECT_FALSE(PacketTimesOf(next)->discontinuity);
  }
}

TEST(ReconnectingDemuxer, TheEndOfAFileIsTheEnd) {
  Camera file(kClips + "left.mp4");
  EXPECT_EQ(file.result(), 0);
  EXPECT_THAT(file.ReadAndFindGaps(100), IsEmpty());
  EXPECT_EQ(file.reader().LastFault(), DemuxerFault::kEndOfStream);
  EXPECT_THAT(file.changes(), ElementsAre(Change(kOpen, DemuxerFault::kNone, 0U),
                                          Change(kEnded, DemuxerFault::kEndOfStream, 0U)));
  Camera missing(kClips + "missing.mp4");
  EXPECT_EQ(missing.result(), -1);
  EXPECT_EQ(missing.reader().ReadFrame(), nullptr);
  EXPECT_THAT(missing.changes(), ElementsAre(Change(kEnded, DemuxerFault::kRefused, 1U)));
}

}  // namespace
}  // namespace qx::utils::video
