#include "qxtools/cost_volume.h"

#include <cmath>
#include <random>

#include "qx_utils/image/kernels/cpu_features.h"
#include "tests/testing/test.h"
#include "tests/testing/threads.h"

namespace qx::utils::image {
namespace {

// A frame of somebody else's making: every answer can be set on its own.
class LooseFrame : public velkar::vision::ImageFrame {
 public:
  LooseFrame(std::uint32_t height, std::uint32_t width, std::uint32_t channels, std::uint8_t fill)
      : h(height), w(width), c(channels), bytes(std::size_t{height} * width * channels, fill) {
    pixel_format = kQXPixelFormatUint8;
  }
  std::uint8_t* Data() const override { return data; }
  std::uint32_t DataSize() const override { return size; }
  std::uint32_t Height() const override { return h; }
  std::uint32_t Width() const override { return w; }
  std::uint32_t Channel() const override { return c; }

  std::uint32_t h, w, c;
  std::vector<std::uint8_t> bytes;
  std::uint8_t* data = bytes.data();
  std::uint32_t size = static_cast<std::uint32_t>(bytes.size());
};

struct Frames {
  Frames(std::uint32_t height, std::uint32_t width, std::uint32_t channels, std::uint32_t d)
      : left(height, width, channels, 1),
        right(height, width, channels, 1),
        out(height, width, d, 0xEE) {}
  void Run() {
    CostVolume(missing == 1 ? nullptr : &left, missing == 2 ? nullptr : &right,
               missing == 3 ? nullptr : &out);
  }
  LooseFrame left, right, out;
  int missing = 0;  // number of the frame that is null
};

// Every sum is 32 x 1, so the right frame's scale alone makes the cost.
TEST(CostVolume, QuantisesWithALeakAndTiesUpwards) {
  const float inf = std::numeric_limits<float>::infinity();
  const std::pair<float, int> cases[] = {
      {2.5F, 3},        {0.49999997F, 0},     {0.5F, 1},      {127.0F, 127},
      {130.0F, 0x82},   {300.0F, 0x2C},       {-10.0F, 0xFF}, {-64.0F, 0xFA},
      {-64.1F, 0xF9},   {-4.923077F, 0},      {-5.0F, 0xFF},  {8388609.0F, 1},
      {3e9F, 0xFF},     {2147483520.F, 0x80}, {inf, 0xFF},    {-inf, 0},
      {-3e10F, 0},      {std::nanf(""), 0},   {0.0F, 0},      {1e-40F, 0},
      {16777217.0F, 0}, {-1e-30F, 0}};
  for (const auto& [cost, byte] : cases) {
    Frames f(1, 20, 32, 17);
    f.right.scale = cost;
    f.Run();
    for (int i = 0; i < 20 * 17; ++i) {
      ASSERT_EQ(f.out.bytes[static_cast<std::size_t>(i)], i % 17 <= i / 17 ? byte : 0) << cost;
    }
  }
}

TEST(CostVolume, CountsWholeBlocksOfChannelsAndMultipliesScalesInTheirOrder) {
  const struct {
    std::uint32_t channels;
    float right, left, out;
    int byte;  // 32 x whole blocks / channels, with scales of 1, 32, 1
  } cases[] = {
      {0, 1, 32, 1, 0},   {1, 1, 32, 1, 0},   {31, 1, 32, 1, 0},  {32, 1, 32, 1, 32},
      {33, 1, 32, 1, 31}, {48, 1, 32, 1, 21}, {96, 1, 32, 1, 32}, {32, 1e20F, 1e20F, 1e-38F, 0xFF}};
  for (const auto& c : cases) {
    Frames f(2, 7, c.channels, 3);
    f.right.scale = c.right;
    f.left.scale = c.left;  // right x left may overflow before the output's scale can help
    f.out.scale = c.out;
    f.Run();
    EXPECT_EQ(f.out.bytes[3 * 6 + 1], c.byte) << c.channels;
  }
}

TEST(CostVolume, SameBytesForAnyNumberOfThreads) {
  std::mt19937 random(7);
  Frames f(5, 33, 64, 19);
  for (auto* bytes : {&f.left.bytes, &f.right.bytes}) {
    for (auto& byte : *bytes) byte = static_cast<std::uint8_t>(random());
  }
  std::vector<std::uint8_t> one;
  for (const int number : {1, 2, 7}) {
    const testing::Threads threads(number);
    std::fill(f.out.bytes.begin(), f.out.bytes.end(), std::uint8_t{0xEE});
    f.Run();
    if (number == 1) one = f.out.bytes;
    EXPECT_EQ(f.out.bytes, one) << number;
  }
  f.out.data = f.left.bytes.data() + 33 * 64;  // the first row's costs over the second row
  f.Run();
  EXPECT_TRUE(std::equal(one.begin(), one.end(), f.out.data)) << "laid over an input";
}

TEST(CostVolume, RefusesFramesThatDoNotFit) {
  const struct {
    const char* reason;
    void (*spoil)(Frames&);
  } cases[] = {
      {"differ in shape", [](Frames& f) { f.right.w = 2, f.right.h = 8; }},
      {"differ in shape", [](Frames& f) { f.right.c = 64; }},
      {"height and width", [](Frames& f) { f.out.h = 5; }},
      {"height and width", [](Frames& f) { f.out.w = 3; }},
      {"DataSize()", [](Frames& f) { f.out.size -= 1; }},
      {"DataSize()", [](Frames& f) { f.out.c = 6; }},
      {"DataSize()", [](Frames& f) { f.left.size = f.right.size = 511; }},
      {"32 bits", [](Frames& f) { f.out.c = 1U << 28; }},
      {"32 bits",
       [](Frames& f) {
         for (auto* frame : {&f.left, &f.right, &f.out}) frame->h = frame->w = frame->c = 1U << 16;
       }},
      {"Data() is null", [](Frames& f) { f.left.data = nullptr; }},
      {"Data() is null", [](Frames& f) { f.right.data = nullptr; }},
      {"Data() is null", [](Frames& f) { f.out.data = nullptr; }},
      {"null", [](Frames& f) { f.missing = 1; }},
      {"null", [](Frames& f) { f.missing = 2; }},
      {"null", [](Frames& f) { f.missing = 3; }},
  };
  for (const auto& c : cases) {
    Frames f(4, 4, 32, 5);
    c.spoil(f);
    LogCapture log;
    f.Run();
    EXPECT_THAT(log.Messages(google::ERROR), ElementsAre(HasSubstr(c.reason)));
    EXPECT_THAT(f.out.bytes, Each(0xEE)) << c.reason;
  }
}

TEST(CostVolume, EmptyFramesAndSpareBytesAreFine) {
  LogCapture log;
  for (auto shape : {std::vector<std::uint32_t>{0, 4, 32, 3}, {4, 0, 32, 3}, {4, 4, 32, 0}}) {
    Frames(shape[0], shape[1], shape[2], shape[3]).Run();
  }
  Frames f(2, 2, 32, 2);
  f.out.bytes.assign(11, 0xEE);
  f.out.data = f.out.bytes.data();
  f.out.size = 11;
  f.Run();
  EXPECT_THAT(f.out.bytes, ElementsAre(1, 0, 1, 1, 1, 0, 1, 1, 0xEE, 0xEE, 0xEE));
  EXPECT_THAT(log.Messages(google::ERROR), IsEmpty());
  EXPECT_EQ(log.Messages().back(),
            "cost_volume inputs shape: \nleft: (2, 2, 32) right: (2, 2, 32) ");
}

TEST(CostVolumeDeathTest, WrongFormatsAndSizesEndTheProcess) {
  for (int i = 0; i < 3; ++i) {
    Frames f(1, 1, 32, 1);
    (i == 0 ? f.left : i == 1 ? f.right : f.out).pixel_format = kQXPixelFormatGray8;
    EXPECT_DEATH(f.Run(),
                 "Check failed: QXPixelFormat::kQXPixelFormatUint8 == input_l->pixel_format && "
                 "QXPixelFormat::kQXPixelFormatUint8 == input_r->pixel_format && "
                 "QXPixelFormat::kQXPixelFormatUint8 == output->pixel_format "
                 "input_l, input_r, output pixel format must be Uint8 17");
  }
  Frames f(1, 1, 32, 1);
  f.right.size = 33;
  EXPECT_DEATH(f.Run(),
               "Check failed: input_l->DataSize\\(\\) == input_r->DataSize\\(\\) \\(32 vs. 33\\) "
               "The two inputs' size not same, please check.");
}

TEST(CpuFeatures, ForcedNamesAreObeyedOrReported) {
  using internal::ChooseFeatures;
  const auto isas = internal::CompiledIsas();
  const std::uint32_t all = isas.first->features;
  LogCapture log;
  EXPECT_EQ(ChooseFeatures(nullptr, all), all);
  EXPECT_EQ(ChooseFeatures("", all), all);
  for (const auto& isa : isas) EXPECT_EQ(ChooseFeatures(isa.name, all), isa.features);
  EXPECT_THAT(log.Messages(google::ERROR), IsEmpty());
  EXPECT_EQ(ChooseFeatures(isas.first->name, 0), 0U);
  EXPECT_EQ(ChooseFeatures("sse9", all), all);
  EXPECT_THAT(log.Messages(google::ERROR),
              ElementsAre(HasSubstr("does not have it; it has scalar"),
                          HasSubstr("QXTOOLS_FORCE_ISA=sse9 is ignored")));
}

}  // namespace
}  // namespace qx::utils::image
