#include "qxtools/media_proc.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "qxtools/instruction_sets.h"
#include "tests/testing/test.h"

namespace qx {
namespace utils {
namespace image {
namespace {

using velkar::vision::ImageFrameImpl;
using Frame = MediaProc::Frame;
using Box = MediaProc::Box;

// Writes down each operation with all of its arguments; frames appear by name.
class RecordingEngine : public MediaProc {
 public:
  std::vector<Frame> Crop(Frame frame, const std::vector<Box>& boxes, std::size_t width,
                          std::size_t height, bool resize) override {
    std::ostringstream call;
    call << "Crop " << frame->name;
    for (const Box& b : boxes) {
      call << " (" << b.x1 << ' ' << b.y1 << ' ' << b.x2 << ' ' << b.y2 << ' ' << b.attr_a << ' '
           << b.attr_b << " '" << b.name << "')";
    }
    call << ' ' << width << ' ' << height << ' ' << resize;
    calls.push_back(call.str());
    return answer;
  }
  Frame Resize(Frame frame, std::size_t width, std::size_t height) override {
    return Record("Resize " + frame->name + ' ' + std::to_string(width) + ' ' +
                  std::to_string(height));
  }
  Frame CvtColor(Frame frame, QXPixelFormat format) override {
    return Record("CvtColor " + frame->name + ' ' + std::to_string(format));
  }
  Frame Decode(const unsigned char* data, std::size_t size) override {
    return Record("Decode " + std::string(data, data + 2) + ' ' + std::to_string(size));
  }
  std::vector<unsigned char> Encode(Frame frame, ImageFileFormat format,
                                    const EncodeParams& params) override {
    Record("Encode " + frame->name + ' ' + std::to_string(format) + ' ' +
           std::to_string(params.quality));
    return {7, 8, 9};
  }

  std::vector<std::string> calls;
  std::vector<Frame> answer = {std::make_shared<ImageFrameImpl>(),
                               std::make_shared<ImageFrameImpl>()};

 private:
  Frame Record(std::string call) {
    calls.push_back(std::move(call));
    return answer.front();
  }
};

// Each test leaves the process without an engine, as it found it.
class MediaProcTest : public ::testing::Test {
 protected:
  MediaProcTest() : pixels_(640 * 480) {
    frame_ = ImageFrameImpl::Create(kQXPixelFormatGray8, pixels_.data(), 480, 640, 1);
    frame_->name = "f";
    boxes_[0].attr_a = 0.5F;
  }
  ~MediaProcTest() override { InstallMediaProcFactory(nullptr); }

  // Calls every front end once and returns how many of the results were empty.
  int EmptyResults(const Frame& f) const {
    return (Decode(kFile, 5, 3) == nullptr) + (Resize(f, 10, 20, 3) == nullptr) +
           (Resize(f, 11, 21, false, 3) == nullptr) + (Resize(f, 12, 22, true, 3) == nullptr) +
           Crop(f, boxes_, 3).empty() + Crop(f, boxes_, 13, 23, true, 3).empty() +
           (CvtColor(f, kQXPixelFormatNV12, 3) == nullptr) +
           Encode(f, kImageFileFormatPng, EncodeParams{90}, 3).empty() +
           Encode(f, kImageFileFormatBmp, 3).empty();
  }
  static constexpr int kFrontEnds = 9;

  static constexpr unsigned char kFile[] = "ab345";
  std::vector<std::uint8_t> pixels_;
  Frame frame_;
  std::vector<Box> boxes_ = {Box(1, 2, 3, 4, "a"), Box(5, 6, 7, 8, "b")};
};

TEST_F(MediaProcTest, FrontEndsReturnNothingWithoutAnEngineAndForTheInterfacesOwnOperations) {
  const struct {
    MediaProcFactory factory;
    std::size_t errors;
  } cases[] = {{nullptr, kFrontEnds},
               {[](int) { return nullptr; }, kFrontEnds},
               {[](int) { return std::make_shared<MediaProc>(); }, 0}};
  for (const auto& c : cases) {
    InstallMediaProcFactory(c.factory);
    const LogCapture log;
    // A null frame: nobody may look at it where there is no engine.
    EXPECT_EQ(EmptyResults(c.errors != 0 ? nullptr : frame_), kFrontEnds);
    EXPECT_EQ(log.Messages(), std::vector<std::string>(c.errors, "create MediaProc failed"));
    EXPECT_EQ(CreateMediaProc(0) == nullptr, c.errors != 0);
  }
  MediaProc().Reserved();
}

TEST_F(MediaProcTest, FrontEndsHandOverTheirArgumentsAndReturnTheAnswer) {
  auto engine = std::make_shared<RecordingEngine>();
  std::vector<int> devices;
  InstallMediaProcFactory([&](int device) {
    devices.push_back(device);
    return engine;
  });
  const LogCapture log;
  const Frame first = engine->answer.front();
  EXPECT_EQ(Decode(kFile, 5, -1), first);
  EXPECT_EQ(Resize(frame_, 10, 20, 1), first);
  EXPECT_EQ(Resize(frame_, 11, 21, false, 2), first);
  EXPECT_EQ(Resize(frame_, 12, 22, true, 3), first);
  EXPECT_EQ(Crop(frame_, boxes_, 4), engine->answer);
  EXPECT_EQ(Crop(frame_, boxes_, 13, 23, true, 5), engine->answer);
  EXPECT_EQ(CvtColor(frame_, kQXPixelFormatNV12, 6), first);
  EXPECT_THAT(Encode(frame_, kImageFileFormatPng, EncodeParams{90}, 7), ElementsAre(7, 8, 9));
  EXPECT_THAT(Encode(frame_, kImageFileFormatBmp, 8), ElementsAre(7, 8, 9));
  EXPECT_THAT(engine->calls, ElementsAre("Decode ab 5", "Resize f 10 20", "Resize f 11 21",
                                         "Crop f (0 0 639 479 0 0 '') 12 22 1",
                                         "Crop f (1 2 3 4 0.5 0 'a') (5 6 7 8 0 0 'b') 0 0 0",
                                         "Crop f (1 2 3 4 0.5 0 'a') (5 6 7 8 0 0 'b') 13 23 1",
                                         "CvtColor f 6", "Encode f 1 90", "Encode f 2 0"));
  EXPECT_THAT(devices, ElementsAre(-1, 1, 2, 3, 4, 5, 6, 7, 8));
  EXPECT_EQ(engine.use_count(), 1) << "released with each call";
  engine->answer.clear();
  EXPECT_EQ(Resize(frame_, 12, 22, true, 0), nullptr);
  EXPECT_THAT(log.Messages(), IsEmpty());
}

// The factory was once destroyed by exit(), while front ends still ran; so was the list of
// instruction sets.
TEST(MediaProcDeathTest, ProcessWideObjectsOutliveMain) {
  struct Echo : MediaProc {
    Frame CvtColor(Frame frame, QXPixelFormat) override { return frame; }
  };
  static const Frame frame = std::make_shared<ImageFrameImpl>();
  static const char* name = nullptr;
  const auto after_main = [] {
    const bool usable =
        CvtColor(frame, kQXPixelFormatGray8, 0) == frame && InstructionSets().front().name == name;
    std::_Exit(usable ? 0 : 1);
  };
  const auto run = [&after_main] {
    std::atexit(after_main);  // before the first use, so that it runs after what that would destroy
    std::shared_ptr<void> alive(nullptr, [](void*) { std::_Exit(2); });
    InstallMediaProcFactory([alive = std::move(alive)](int) { return std::make_shared<Echo>(); });
    name = InstructionSets().front().name;
    std::exit(3);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
}

// Run under the thread sanitizer this shows that a factory may come and go while it is in use.
TEST_F(MediaProcTest, FactoriesComeAndGoWhileFrontEndsRun) {
  struct Echo : MediaProc {
    Frame CvtColor(Frame frame, QXPixelFormat) override { return frame; }
  };
  std::atomic<bool> stop{false};
  std::atomic<int> made{0}, empty{0};
  const auto use = [&] {
    while (!stop) {
      const Frame result = CvtColor(frame_, kQXPixelFormatGray8, 0);
      EXPECT_TRUE(result == nullptr || result == frame_);
      if (result == nullptr) ++empty;
    }
  };
  const LogCapture log;  // also keeps the expected errors countable
  std::thread threads[] = {std::thread(use), std::thread(use), std::thread(use)};
  for (int round = 0; round < 200 || made == 0 || empty == 0; ++round) {
    const auto owned = std::make_shared<int>(round);
    InstallMediaProcFactory([owned, round, &made](int) {
      EXPECT_EQ(*owned, round);
      ++made;
      return std::make_shared<Echo>();
    });
    if (round % 8 == 0) InstallMediaProcFactory(nullptr);
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(log.Messages(google::ERROR).size(), static_cast<std::size_t>(empty.load()));
}

}  // namespace
}  // namespace image
}  // namespace utils
}  // namespace qx
