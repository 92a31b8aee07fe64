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

// Opens `url` and keeps what it was told.
struct Camera {
  explicit Camera(const std::string& url) {
    reader.SetStateCallback([this](const ConnectionChange& change) {
      changes.push_back(change);
      if (on_change) on_change(change);
    });
    result = reader.Open(url, {});
  }

  // Reads `count` packets, or fewer when they end. Returns: the numbers of those after a gap.
  std::vector<int> ReadAndFindGaps(int count) {
    std::vector<int> gaps;
    for (int i = 0; i < count; ++i) {
      const auto times = PacketTimesOf(reader.ReadFrame());
      if (!times) break;
      if (times->discontinuity) gaps.push_back(i);
    }
    return gaps;
  }

  ReconnectingDemuxer reader{{milliseconds(50), milliseconds(400), milliseconds(1000)}};
  std::vector<ConnectionChange> changes;
  std::function<void(const ConnectionChange&)> on_change;
  int result = -1;
};

// Fields: state, reason, failures; pauses are random.
MATCHER_P3(Change, state, reason, failures, "") {
  return arg.state == state && arg.reason == reason && arg.failures == failures;
}

constexpr ConnectionState kOpen = ConnectionState::kOpen;
constexpr ConnectionState kWaiting = ConnectionState::kWaiting;
constexpr ConnectionState kEnded = ConnectionState::kEnded;

// Each camera gives 40 pictures and is lost. It serves one client at a time, so that it could not
// be opened again while the lost connection is open.
TEST(ReconnectingDemuxer, OpensAgainAndMarksTheGap) {
  const struct {
    const char *file, *options;
    DemuxerFault reason;
    int pictures;  // that arrive; FFmpeg keeps one until the next begins or the connection ends
  } losses[] = {{"left.h264", "--close-after 40", DemuxerFault::kClosedByPeer, 40},
                {"hevc.h265", "--audio --stop-after 40", DemuxerFault::kTimedOut, 39}};
  for (const auto& loss : losses) {
    SCOPED_TRACE(loss.options);
    const RtspPeer peer(loss.file, std::string("--single --fps 50 ") + loss.options);
    Camera camera(peer.url());
    ASSERT_EQ(camera.result, 0);
    EXPECT_THAT(camera.ReadAndFindGaps(50), ElementsAre(loss.pictures));
    // Attempts may come before the peer has noticed that its client is gone.
    const auto& changes = camera.changes;
    ASSERT_GE(changes.size(), 3U);
    EXPECT_THAT(changes[0], Change(kOpen, DemuxerFault::kNone, 0U));
    EXPECT_THAT(changes[1], Change(kWaiting, loss.reason, 0U));
    EXPECT_THAT(changes.back(), Change(kOpen, DemuxerFault::kNone, 0U));
  }
}

TEST(ReconnectingDemuxer, FindsAServerThatWasKilledAndStartedAgain) {
  auto peer = std::make_unique<RtspPeer>("left.h264", "--described");
  Camera camera(peer->url());
  camera.on_change = [&](const ConnectionChange& change) {
    if (change.failures != 2) return;
    peer = std::make_unique<RtspPeer>("left.h264", "--described --port " + peer->port());
  };
  EXPECT_THAT(camera.ReadAndFindGaps(35), IsEmpty());
  peer->Signal(SIGKILL);
  EXPECT_THAT(camera.ReadAndFindGaps(60), SizeIs(1));
  EXPECT_THAT(camera.changes, ElementsAre(Change(kOpen, DemuxerFault::kNone, 0U),
                                          Change(kWaiting, DemuxerFault::kClosedByPeer, 0U),
                                          Change(kWaiting, DemuxerFault::kRefused, 1U),
                                          Change(kWaiting, DemuxerFault::kRefused, 2U),
                                          Change(kOpen, DemuxerFault::kNone, 0U)));
}

TEST(ReconnectingDemuxer, PausesGrowUntilCancelled) {
  const RtspPeer peer("left.h264", "--auth digest");
  Camera camera(peer.url());  // without a password
  EXPECT_EQ(camera.result, -1);
  camera.on_change = [&](const ConnectionChange& change) {
    if (change.failures == 5) camera.reader.Cancel();
  };
  EXPECT_EQ(camera.reader.ReadFrame(), nullptr);
  EXPECT_EQ(camera.reader.LastFault(), DemuxerFault::kCancelled);
  EXPECT_THAT(camera.changes, Each(Field(&ConnectionChange::reason, DemuxerFault::kRefused)));
  std::vector<std::int64_t> pauses;
  for (const auto& change : camera.changes) pauses.push_back(change.pause.count());
  const auto from = [](int least, int most) { return AllOf(Ge(least), Le(most)); };
  EXPECT_THAT(pauses, ElementsAre(from(40, 50), from(80, 100), from(160, 200), from(320, 400),
                                  from(320, 400)));
}

// Another thread cancels a pause of half a minute, a wait for an answer and a read in mid-stream.
TEST(ReconnectingDemuxer, CancelEndsAnyWaitAndReadingGoesOn) {
  const RtspPeer silent("left.h264", "--fault describe:silent");
  const RtspPeer slow("left.h264", "--pause 35:2");
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
  EXPECT_EQ(file.result, 0);
  EXPECT_THAT(file.ReadAndFindGaps(100), IsEmpty());
  EXPECT_EQ(file.reader.LastFault(), DemuxerFault::kEndOfStream);
  EXPECT_THAT(file.changes, ElementsAre(Change(kOpen, DemuxerFault::kNone, 0U),
                                        Change(kEnded, DemuxerFault::kEndOfStream, 0U)));
  Camera missing(kClips + "missing.mp4");
  EXPECT_EQ(missing.result, -1);
  EXPECT_EQ(missing.reader.ReadFrame(), nullptr);
  EXPECT_THAT(missing.changes, ElementsAre(Change(kEnded, DemuxerFault::kRefused, 1U)));
}

}  // namespace
}  // namespace qx::utils::video
