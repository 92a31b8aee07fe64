#include "qxtools/stereo_matcher.h"

#include <array>
#include <cmath>
#include <functional>
#include <random>
#include <stdexcept>
#include <utility>

#include "qxtools/ffmpeg_video_decoder.h"
#include "tests/testing/decoding.h"
#include "tests/testing/error_of.h"
#include "tests/testing/stereo_frames.h"
#include "tests/testing/test.h"
#include "tests/testing/threads.h"

namespace qx::utils::stereo {
namespace {

using velkar::vision::ImageFrameImpl;
using FramePtr = testing::StereoFrame;
using testing::BytesOf;
using testing::MatchInSteps;
using testing::NewFrame;
using Map = std::vector<std::uint16_t>;

// A grey picture whose pixel (x, y) is grey(x, y).
FramePtr Draw(int width, int height, const std::function<int(int, int)>& grey) {
  auto frame = NewFrame(kQXPixelFormatGray8, static_cast<std::size_t>(height),
                        static_cast<std::size_t>(width), 1);
  std::uint8_t* pixel = frame->Data();
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) *pixel++ = static_cast<std::uint8_t>(grey(x, y));
  }
  return frame;
}

// A smooth random texture that can be sampled between pixels: waves of random direction and phase.
class Texture {
 public:
  explicit Texture(unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> frequency(-1.6, 1.6), phase(0, 6.3);
    for (auto& w : waves_) w = {frequency(random), frequency(random), phase(random)};
  }
  int At(double x, double y) const {
    double sum = 0;
    for (const auto& [u, v, phase] : waves_) sum += std::sin(u * x + v * y + phase);
    return static_cast<int>(std::lround(128 + 14 * sum));
  }

 private:
  std::array<double, 3> waves_[8] = {};
};

Map ValuesOf(const FramePtr& frame) {
  const auto* values = reinterpret_cast<const std::uint16_t*>(frame->Data());
  return Map(values, values + frame->DataSize() / 2);
}

// A disparity in pixels, -1 where it is missing.
double At(const FramePtr& map, int x, int y) {
  const auto* const row = reinterpret_cast<const std::uint16_t*>(map->Data()) +
                          std::size_t{map->Width()} * static_cast<std::size_t>(y);
  return row[x] == kMissingDisparity ? -1 : row[x] / 256.0;
}

StereoOptions Disparities(int count, int first = 0) {
  StereoOptions options;
  options.disparities = count;
  options.first_disparity = first;
  return options;
}

TEST(StereoMatcher, FindsKnownDisparitiesToAFractionOfAPixel) {
  const Texture texture(1);
  for (const double disparity : {0.0, 7.0, 11.5, 19.25}) {
    SCOPED_TRACE(disparity);
    const auto left = Draw(96, 40, [&](int x, int y) { return texture.At(x, y); });
    // Another brightness and contrast: the correlation does not see them.
    const auto right =
        Draw(96, 40, [&](int x, int y) { return 20 + texture.At(x + disparity, y) * 3 / 4; });
    const StereoResult result = StereoMatcher(Disparities(24)).Match(left, right);
    for (int y = 4; y < 36; ++y) {
      for (int x = 28; x < 92; ++x) {
        ASSERT_NEAR(At(result.disparity, x, y), disparity, 0.3) << x << ',' << y;
      }
      for (int x = 0; x + 2 < disparity; ++x) ASSERT_EQ(At(result.disparity, x, y), -1);
      for (int x = 0; x < 96; ++x) ASSERT_NEAR(At(result.filled, x, y), disparity, 2);
    }
  }
}

TEST(StereoMatcher, GivesTheSameBytesForAnyNumberOfThreadsInStepsAndOnTheBoard) {
  struct Case {
    int width, height, disparities, first, paths;
  };
  const Case cases[] = {{1, 1, 1, 0, 8},    {1, 5, 3, 0, 8},     {5, 1, 8, 2, 8},
                        {3, 2, 256, 0, 4},  {70, 3, 200, 56, 8}, {40, 31, 16, 0, 4},
                        {41, 30, 17, 3, 8}, {130, 9, 255, 1, 8}};
  const Texture texture(4);
  for (const auto& [width, height, disparities, first, paths] : cases) {
    SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
    const auto left = Draw(width, height, [&](int x, int y) { return texture.At(x, y); });
    const auto right = Draw(width, height, [&](int x, int y) { return texture.At(x + 5, y); });
    StereoOptions options = Disparities(disparities, first);
    options.paths = paths;
    options.confidence = true;
    StereoMatcher matcher(options);
    const std::string expected = BytesOf(matcher.Match(left, right));
    for (const int team : {1, 2, 3}) {
      const testing::Threads threads(team);
      EXPECT_EQ(BytesOf(matcher.Match(left, right)), expected) << team << " threads";
      EXPECT_EQ(BytesOf(MatchInSteps(left, right, options)), expected) << team << " threads";
    }
    const auto left_map = ComputeFeatures(left), right_map = ComputeFeatures(right, first);
    EXPECT_EQ(BytesOf(matcher.MatchFeatures(left_map, right_map, left)), expected);
    options.backend = StereoBackend::kFpga;
    EXPECT_EQ(BytesOf(StereoMatcher(options).Match(left, right)), expected);
  }
}

// Returns: the first picture of a clip, as the decoder delivers it.
FramePtr Decode(const std::string& clip) {
  testing::Receiver receiver;
  const auto decoder = testing::OpenDecoder(receiver.Callback());
  testing::SendAll(*decoder, testing::ReadPackets(clip));
  return receiver.Frames(*decoder).at(0);
}

TEST(StereoMatcher, ReadsTheLumaOfDecodedAndPlanarPicturesInPlace) {
  const FramePtr left = Decode("left.mp4"), right = Decode("right.mp4");
  const auto& luma = ffmpeg::LayoutOf(left)->planes[0];
  ASSERT_GT(luma.pitch, 320U) << "the clip no longer shows whether the pitch is read";
  const auto copy = [&](const FramePtr& frame, QXPixelFormat format) {
    const std::string samples = testing::Samples(frame);
    auto plain = NewFrame(format, 240, 320, 1);
    std::copy_n(samples.begin(), 320 * 240, plain->Data());
    return plain;
  };
  StereoMatcher matcher(Disparities(64));
  const Map expected = ValuesOf(matcher.Match(left, right).filled);
  for (const auto format :
       {kQXPixelFormatGray8, kQXPixelFormatNV12, kQXPixelFormatNV21, kQXPixelFormatYUV420P}) {
    EXPECT_EQ(ValuesOf(matcher.Match(copy(left, format), copy(right, format)).filled), expected);
    EXPECT_EQ(ValuesOf(matcher.Match(left, copy(right, format)).filled), expected);
  }
}

TEST(StereoMatcher, RefusesWithAReasonAndCanBeUsedFurther) {
  const Texture texture(6);
  const auto picture = Draw(20, 10, [&](int x, int y) { return texture.At(x, y); });
  const auto narrow = NewFrame(kQXPixelFormatGray8, 10, 19, 1);
  const auto map = NewFrame(kQXPixelFormatUint8, 10, 20, 32);
  const auto sums = NewFrame(kQXPixelFormatGray16, 10, 20, 4);
  const auto rgb = NewFrame(kQXPixelFormatRGB888, 10, 20, 3);
  const auto empty = std::make_shared<ImageFrameImpl>();
  empty->pixel_format = kQXPixelFormatGray8;
  const auto odd = NewFrame(kQXPixelFormatUint8, 10, 20, 33);
  // Says that it is larger than it is.
  struct Boaster : ImageFrameImpl {
    using ImageFrameImpl::ImageFrameImpl;
    std::uint32_t Height() const override { return 0xFFFFFFFF; }
    std::uint32_t Width() const override { return 0xFFFFFFFF; }
    std::uint32_t Channel() const override { return 1; }
  };
  const auto boaster = std::make_shared<Boaster>();
  boaster->pixel_format = kQXPixelFormatGray8;

  StereoMatcher matcher(Disparities(8));
  const auto with = [](auto member, int value) {
    StereoOptions options;
    options.*member = value;
    return [options] { StereoMatcher refused(options); };
  };
  using O = StereoOptions;
  const O o;
  const std::pair<std::function<void()>, const char*> cases[] = {
      {with(&O::disparities, 0), "disparities is 0, not 1 .. 256"},
      {with(&O::disparities, 257), "disparities is 257, not 1 .. 256"},
      {with(&O::first_disparity, -1), "first_disparity is -1, not 0 .. 255"},
      {with(&O::first_disparity, 193), "first_disparity + disparities is 257, not 1 .. 256"},
      {with(&O::slant_penalty, -1), "slant_penalty is -1, not 0 .. 95"},
      {with(&O::jump_penalty, 19), "jump_penalty is 19, not 20 .. 171"},
      {with(&O::jump_penalty, 172), "jump_penalty is 172, not 20 .. 171"},
      {with(&O::paths, 5), "paths is 5, not 4 or 8"},
      {[&] { matcher.Match(nullptr, picture); }, "left: the frame is null"},
      {[&] { matcher.Match(picture, empty); }, "right: the frame is empty: 0 x 0 x 1"},
      {[&] { matcher.Match(picture, narrow); }, "left: 20 x 10 pixels, but right has 19 x 10"},
      {[&] { matcher.Match(rgb, rgb); }, "left: pixel format 12 is neither Gray8 nor NV12, NV21"},
      {[&] { matcher.Match(boaster, boaster); }, "left: DataSize() is 0, too small for"},
      {[&] { matcher.MatchFeatures(map, odd, picture); }, "left_map is 10 x 20 x 32, right_map 10"},
      {[&] { matcher.MatchFeatures(odd, odd, picture); }, "33 channels, not a multiple of 32"},
      {[&] { matcher.MatchFeatures(map, map, narrow); }, "left_map: 20 x 10 pixels, but guide has"},
      {[&] { matcher.MatchFeatures(map, picture, picture); }, "right_map: pixel format 1 instead"},
      {[&] { ComputeFeatures(picture, 256); }, "shift is 256, not 0 .. 255"},
      {[&] { AggregateCosts(map, narrow, o); }, "volume: 20 x 10 pixels, but guide has 19 x 10"},
      {[&] { AggregateCosts(sums, picture, o); }, "volume: pixel format 3 instead of 17"},
      {[&] { SelectDisparities(map, o); }, "sums: pixel format 17 instead of 3"},
      {[&] { FillDisparities(sums); }, "disparity: 10 x 20 x 4 values, not one for each pixel"},
  };
  const Map expected = ValuesOf(matcher.Match(picture, picture).filled);
  for (const auto& [call, reason] : cases) {
    EXPECT_THAT(testing::ErrorOf<std::invalid_argument>(call), HasSubstr(reason));
  }
  EXPECT_EQ(ValuesOf(matcher.Match(picture, picture).filled), expected);
}

}  // namespace
}  // namespace qx::utils::stereo
