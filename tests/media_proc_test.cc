#include "qxtools/media_proc.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "qxtools/instruction_sets.h"
#include "tests/testing/test.h"

namespace qx::utils::image {
namespace {

using ::testing::Field;
using ::testing::Return;
using ::testing::Truly;
using velkar::vision::ImageFrameImpl;
using Frame = MediaProc::Frame;
using Box = MediaProc::Box;

class MockEngine : public MediaProc {
 public:
  MOCK_METHOD(std::vector<Frame>, Crop,
              (Frame, const std::vector<Box>&, std::size_t, std::size_t, bool), (override));
  MOCK_METHOD(Frame, Resize, (Frame, std::size_t, std::size_t), (override));
  MOCK_METHOD(Frame, CvtColor, (Frame, QXPixelFormat), (override));
  MOCK_METHOD(Frame, Decode, (const unsigned char*, std::size_t), (override));
  MOCK_METHOD(std::vector<unsigned char>, Encode, (Frame, ImageFileFormat, const EncodeParams&),
              (override));
};

struct Echo : MediaProc {
  Frame CvtColor(Frame frame, QXPixelFormat) override { return frame; }
};

// Each test leaves the process without an engine, as it found it.
class MediaProcTest : public ::testing::Test {
 protected:
  MediaProcTest() : pixels_(640 * 480) {
    frame_ = ImageFrameImpl::Create(kQXPixelFormatGray8, pixels_.data(), 480, 640, 1);
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
  const std::pair<MediaProcFactory, std::size_t> cases[] = {
      {nullptr, kFrontEnds},
      {[](int) { return nullptr; }, kFrontEnds},
      {[](int) { return std::make_shared<MediaProc>(); }, 0}};
  for (const auto& [factory, errors] : cases) {
    InstallMediaProcFactory(factory);
    const LogCapture log;
    // A null frame: nobody may look at it where there is no engine.
    EXPECT_EQ(EmptyResults(errors != 0 ? nullptr : frame_), kFrontEnds);
    EXPECT_EQ(log.Messages(), std::vector<std::string>(errors, "create MediaProc failed"));
    EXPECT_EQ(CreateMediaProc(0) == nullptr, errors != 0);
  }
  MediaProc().Reserved();
}

TEST_F(MediaProcTest, FrontEndsHandOverTheirArgumentsAndReturnTheAnswer) {
  auto engine = std::make_shared<MockEngine>();
  std::vector<int> devices;
  InstallMediaProcFactory([&](int device) {
    devices.push_back(device);
    return engine;
  });
  const LogCapture log;
  const Frame made = std::make_shared<ImageFrameImpl>();
  const std::vector<Frame> cut = {made, std::make_shared<ImageFrameImpl>()};
  const std::vector<unsigned char> file = {7, 8, 9};
  const auto given = [this](auto& boxes) { return &boxes == &boxes_; };
  const ::testing::InSequence in_this_order;
  EXPECT_CALL(*engine, Decode(kFile, 5)).WillOnce(Return(made));
  EXPECT_CALL(*engine, Resize(frame_, 10, 20)).WillOnce(Return(made));
  EXPECT_CALL(*engine, Resize(frame_, 11, 21)).WillOnce(Return(made));
  const auto whole = ElementsAre(
      AllOf(Field(&Box::x1, 0), Field(&Box::y1, 0), Field(&Box::x2, 639), Field(&Box::y2, 479)));
  EXPECT_CALL(*engine, Crop(frame_, whole, 12, 22, true)).WillOnce(Return(cut));
  EXPECT_CALL(*engine, Crop(frame_, Truly(given), 0, 0, false)).WillOnce(Return(cut));
  EXPECT_CALL(*engine, Crop(frame_, Truly(given), 13, 23, true)).WillOnce(Return(cut));
  EXPECT_CALL(*engine, CvtColor(frame_, kQXPixelFormatNV12)).WillOnce(Return(made));
  const auto quality = [](std::uint32_t value) { return Field(&EncodeParams::quality, value); };
  EXPECT_CALL(*engine, Encode(frame_, kImageFileFormatPng, quality(90))).WillOnce(Return(file));
  EXPECT_CALL(*engine, Encode(frame_, kImageFileFormatBmp, quality(0))).WillOnce(Return(file));
  EXPECT_CALL(*engine, Crop(frame_, whole, 12, 22, true)).WillOnce(Return(std::vector<Frame>()));

  EXPECT_EQ(Decode(kFile, 5, -1), made);
  EXPECT_EQ(Resize(frame_, 10, 20, 1), made);
  EXPECT_EQ(Resize(frame_, 11, 21, false, 2), made);
  EXPECT_EQ(Resize(frame_, 12, 22, true, 3), made);
  EXPECT_EQ(Crop(frame_, boxes_, 4), cut);
  EXPECT_EQ(Crop(frame_, boxes_, 13, 23, true, 5), cut);
  EXPECT_EQ(CvtColor(frame_, kQXPixelFormatNV12, 6), made);
  EXPECT_EQ(Encode(frame_, kImageFileFormatPng, EncodeParams{90}, 7), file);
  EXPECT_EQ(Encode(frame_, kImageFileFormatBmp, 8), file);
  EXPECT_EQ(Resize(frame_, 12, 22, true, 9), nullptr);
  EXPECT_THAT(devices, ElementsAre(-1, 1, 2, 3, 4, 5, 6, 7, 8, 9));
  EXPECT_EQ(engine.use_count(), 1) << "released with each call";
  EXPECT_THAT(log.Messages(), IsEmpty());
}

// The factory was once destroyed by exit(), while front ends still ran; so was the list of
// instruction sets.
TEST(MediaProcDeathTest, ProcessWideObjectsOutliveMain) {
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
}  // namespace qx::utils::image
