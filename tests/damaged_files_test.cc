// One short clip per container, cut at every byte and with flipped bits, from the demuxer to the
// last sample of every frame.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "tests/testing/decoding.h"
#include "tests/testing/effort.h"
#include "tests/testing/temp_path.h"
#include "tests/testing/test.h"

namespace qx::testing {
namespace {

using utils::video::DemuxerFault;

class DamagedFile : public ::testing::TestWithParam<std::string> {
 protected:
  DamagedFile() : path_(TempPath("damaged")) {
    std::ifstream file(QXTOOLS_SHORT_CLIPS "/" + GetParam(), std::ios::binary);
    clip_.assign(std::istreambuf_iterator<char>(file), {});
  }
  ~DamagedFile() override { std::filesystem::remove(path_); }

  // Returns: the packets of a file with these bytes.
  std::vector<PacketPtr> Read(const std::string& bytes) const {
    std::ofstream(path_, std::ios::binary) << bytes;
    utils::video::FfmpegDemuxer demuxer;
    utils::video::AnnexBFilter filter;
    const int status = demuxer.Open(path_, {});
    EXPECT_EQ(status, demuxer.LastFault() == DemuxerFault::kNone ? 0 : -1);
    std::vector<PacketPtr> packets;
    if (status != 0 || filter.Init(demuxer) != 0) return packets;
    while (const auto packet = demuxer.ReadFrame()) {
      packets.push_back(filter.Filter(packet));
      // The table of a file this short cannot promise more.
      if (packets.size() > 1000) ADD_FAILURE() << "there is no end of packets";
      if (packets.size() > 1000) return packets;
    }
    EXPECT_NE(demuxer.LastFault(), DemuxerFault::kNone);
    return packets;
  }

  // Returns: the number of frames that came out.
  static std::size_t Decode(const std::vector<PacketPtr>& packets) {
    Receiver receiver;
    const auto decoder = OpenDecoder(receiver.Callback());
    const std::size_t sent = SendAll(*decoder, packets).size() + Drain(*decoder);
    const auto frames = receiver.Frames(*decoder);
    for (const FramePtr& frame : frames) EXPECT_NE(Samples(frame), "");
    EXPECT_EQ(frames.size(), sent);
    return frames.size();
  }

  std::string path_;
  std::string clip_;
};

TEST_P(DamagedFile, EndsWithAStatusWhereverItIsCut) {
  const std::size_t whole = Read(clip_).size();
  ASSERT_GE(whole, 2U);
  for (std::size_t size = 0; size < clip_.size(); size += Stride(50)) {
    SCOPED_TRACE(size);
    const auto packets = Read(clip_.substr(0, size));
    EXPECT_LE(packets.size(), whole);
    EXPECT_LE(Decode(packets), packets.size());
    if (HasFailure()) return;
  }
}

TEST_P(DamagedFile, EndsWithAStatusWhicheverBitsAreFlipped) {
  std::minstd_rand random(1);
  for (const int bits : {1, 8, 64}) {
    for (std::size_t i = 0; i < 1000; i += Stride(50)) {
      SCOPED_TRACE(std::to_string(bits) + " bits, attempt " + std::to_string(i));
      std::string flipped = clip_;
      for (int bit = 0; bit < bits; ++bit) {
        char& byte = flipped[random() % flipped.size()];
        byte = static_cast<char>(byte ^ 1 << random() % 8);
      }
      Decode(Read(flipped));
      if (HasFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Containers, DamagedFile,
                         ::testing::Values("raw", "mp4", "fragmented_mp4", "mkv", "ts", "raw_h265",
                                           "mp4_h265", "mkv_h265"),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace qx::testing
