#include <omp.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

#include "tests/testing/temp_path.h"
#include "tests/testing/test.h"
#include "tools/stereo_color.h"
#include "tools/stereo_evaluation.h"
#include "tools/stereo_features.h"
#include "tools/stereo_filling.h"
#include "tools/stereo_matcher.h"
#include "tools/stereo_output.h"
#include "tools/stereo_source.h"

namespace qx::tools {
namespace {

constexpr float kNone = kMissing;

// A smooth random texture that can be sampled between pixels: waves of random direction and phase.
class Texture {
 public:
  explicit Texture(unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> frequency(-1.6, 1.6), phase(0, 6.3);
    for (auto& w : waves_) w = {frequency(random), frequency(random), phase(random)};
  }
  std::uint8_t At(double x, double y) const {
    double sum = 0;
    for (const auto& [u, v, phase] : waves_) sum += std::sin(u * x + v * y + phase);
    return static_cast<std::uint8_t>(std::lround(128 + 14 * sum));
  }

 private:
  std::array<double, 3> waves_[8] = {};
};

template <typename Grey>
GrayPicture Draw(int width, int height, Grey grey) {
  GrayPicture picture{width, height, {}};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) picture.luma.push_back(grey(x, y));
  }
  return picture;
}

MatchResult Match(const GrayPicture& left, const GrayPicture& right, int disparities,
                  Backend backend = Backend::kCpu) {
  StageTimes times;
  return StereoMatcher(disparities, backend).Match(left, right, times);
}

DisparityMap MapOf(int width, std::vector<float> values) {
  DisparityMap map(width, static_cast<int>(values.size()) / width);
  map.values = std::move(values);
  return map;
}

TEST(StereoMatcher, FindsKnownDisparitiesToAFractionOfAPixel) {
  const Texture texture(1);
  for (const double disparity : {0.0, 7.0, 11.5, 19.25}) {
    SCOPED_TRACE(disparity);
    const auto left = Draw(96, 40, [&](int x, int y) { return texture.At(x, y); });
    // Another brightness and contrast: the correlation does not see them.
    const auto right = Draw(96, 40, [&](int x, int y) {
      return static_cast<std::uint8_t>(20 + texture.At(x + disparity, y) * 3 / 4);
    });
    const MatchResult result = Match(left, right, 24);
    for (int y = 4; y < 36; ++y) {
      for (int x = 28; x < 92; ++x) {
        ASSERT_NEAR(result.measured.Row(y)[x], disparity, 0.3) << x << ',' << y;
      }
      for (int x = 0; x + 2 < disparity; ++x) ASSERT_EQ(result.measured.Row(y)[x], kMissing);
      for (int x = 0; x < 96; ++x) ASSERT_NEAR(result.filled.Row(y)[x], disparity, 2);
    }
  }
}

// A square 12 px in front of a wall at 4 px hides 8 columns of the wall from the right camera.
TEST(StereoMatcher, DropsWhatTheRightCameraCannotSeeAndFillsItFromBehind) {
  const Texture wall(2), square(3);
  const auto inside = [](int x, int y) { return x >= 50 && x < 80 && y >= 12 && y < 48; };
  const auto left =
      Draw(120, 60, [&](int x, int y) { return inside(x, y) ? square.At(x, y) : wall.At(x, y); });
  const auto right = Draw(120, 60, [&](int x, int y) {
    return inside(x + 12, y) ? square.At(x + 12, y) : wall.At(x + 4, y);
  });
  const MatchResult result = Match(left, right, 24);
  for (int y = 20; y < 40; ++y) {
    for (int x = 44; x < 48; ++x) {
      ASSERT_EQ(result.measured.Row(y)[x], kMissing) << x << ',' << y;
      ASSERT_NEAR(result.filled.Row(y)[x], 4, 1) << x << ',' << y;
    }
    for (int x = 54; x < 76; ++x) ASSERT_NEAR(result.measured.Row(y)[x], 12, 0.5);
    for (int x = 90; x < 110; ++x) ASSERT_NEAR(result.measured.Row(y)[x], 4, 0.5);
  }
}

TEST(StereoMatcher, GivesTheSameForAnyNumberOfThreadsAndOnTheBoard) {
  const Texture texture(4);
  const std::array<int, 3> sizes[] = {{1, 1, 1},   {1, 5, 3},    {5, 1, 8},
                                      {3, 2, 256}, {40, 31, 16}, {41, 30, 17}};
  for (const auto& [width, height, disparities] : sizes) {
    SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
    const auto left = Draw(width, height, [&](int x, int y) { return texture.At(x, y); });
    const auto right = Draw(width, height, [&](int x, int y) { return texture.At(x + 5, y); });
    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);
    const MatchResult one = Match(left, right, disparities);
    omp_set_num_threads(3);
    const MatchResult three = Match(left, right, disparities);
    omp_set_num_threads(threads);
    EXPECT_EQ(one.measured.values, three.measured.values);
    EXPECT_EQ(one.filled.values, three.filled.values);
    EXPECT_EQ(Match(left, right, disparities, Backend::kFpga).measured.values, one.measured.values);
    EXPECT_THAT(one.filled.values, Each(::testing::Ge(0.0F)));
  }
}

TEST(Features, StayWithinTheCostVolumesBytes) {
  std::mt19937 random(5);
  const auto noise = Draw(64, 64, [&](int, int) { return static_cast<std::uint8_t>(random()); });
  const auto frame = ComputeFeatures(noise);
  const auto* values = reinterpret_cast<const std::int8_t*>(frame->Data());
  for (int pixel = 0; pixel < 64 * 64; ++pixel) {
    int square = 0;
    for (int c = 0; c < kFeatureChannels; ++c)
      square += values[pixel * 32 + c] * values[pixel * 32 + c];
    const float cost =
        static_cast<float>(square) * frame->scale * frame->scale * OutputScale() / 32;
    ASSERT_NEAR(cost, kPerfectMatch, 3);
  }
  const auto flat = ComputeFeatures(Draw(8, 8, [](int, int) { return std::uint8_t{77}; }));
  for (std::uint32_t i = 0; i < flat->DataSize(); ++i) ASSERT_EQ(flat->Data()[i], 0);
}

TEST(Filling, TakesTheDisparityFromBehind) {
  EXPECT_THAT(FillMissing(MapOf(6, {9, kNone, kNone, kNone, 5, 5})).values,
              ElementsAre(9, 5, 5, 5, 5, 5));
  EXPECT_THAT(FillMissing(MapOf(3, {kNone, kNone, kNone, 7, kNone, 7, kNone, kNone, kNone})).values,
              Each(7));
  EXPECT_THAT(FillMissing(MapOf(2, {kNone, kNone})).values, Each(0));
}

TEST(Disparities, SpecklesGoAndSurfacesStay) {
  DisparityMap map = MapOf(5, {4, 5, 6, 9, kNone,  //
                               4, 4, 6, 9, 2});
  RemoveSpeckles(3, map);
  EXPECT_THAT(map.values, ElementsAre(4, 5, 6, kNone, kNone, 4, 4, 6, kNone, kNone));
  EXPECT_THAT(MedianFilter(MapOf(3, {1, 90, 2, kNone, 3, 4}), 1).values,
              ElementsAre(3, 3, 4, kNone, 3, 4));
}

TEST(Evaluation, CountsKnownPixelsAndMissingAsWrong) {
  const GrayPicture truth{6, 1, {0, 40, 40, 40, 40, 20}};
  const Errors errors = Evaluate(MapOf(6, {99, 10, 11.5, 12.5, kNone, 5}), truth, 4);
  EXPECT_DOUBLE_EQ(errors.missing, 0.2);
  EXPECT_DOUBLE_EQ(errors.above_1, 0.6);
  EXPECT_DOUBLE_EQ(errors.above_2, 0.4);
  EXPECT_THROW(Evaluate(MapOf(3, {1, 1, 1}), truth, 4), std::runtime_error);
  EXPECT_THROW(Evaluate(MapOf(1, {1}), GrayPicture{1, 1, {0}}, 1), std::runtime_error);
}

TEST(Output, PgmHolds256thsOfAPixelAndZeroWhereMissing) {
  const std::string path = testing::TempPath("map.pgm");
  WritePgmFile(MapOf(2, {kNone, 0, 1.5F, 255}), path);
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  EXPECT_EQ(bytes, std::string("P5\n2 2\n65535\n\0\0\0\1\1\x80\xFF\0", 21));
  EXPECT_THROW(WritePgmFile(MapOf(1, {1}), testing::TempPath("none/map.pgm")), std::exception);
}

TEST(Output, ColoursGetLighterTowardsTheCameraAndTheLegendShowsThem) {
  const auto lightness = [](Rgb c) { return 0.2126 * c.r + 0.7152 * c.g + 0.0722 * c.b; };
  for (int i = 0; i < 100; ++i) {
    const auto value = static_cast<float>(i);
    EXPECT_LT(lightness(ColourOf(value / 100)), lightness(ColourOf((value + 1) / 100)) + 0.5) << i;
  }
  EXPECT_GT(lightness(ColourOf(1)), lightness(ColourOf(0)) + 150);
  RgbPicture picture = Paint(DisparityMap(200, 10), 64);
  ASSERT_GT(picture.height, 10);
  EXPECT_EQ(picture.Row(5)[100].b, 0);             // missing: black
  EXPECT_EQ(picture.Row(16)[6].b, ColourOf(0).b);  // ends of the bar
  EXPECT_EQ(picture.Row(16)[193].r, ColourOf(1).r);
  for (const int width : {1, 7, 30}) Paint(DisparityMap(width, 1), 256);  // clipped, not overrun
}

// Once the labels of narrow pictures were drawn over each other, and their steps were uneven.
TEST(Output, LegendLabelsAreRoundEvenlySpacedAndApart) {
  for (int width = 1; width < 700; ++width) {
    for (const int disparities : {1, 2, 16, 64, 112, 256}) {
      const auto labels = LegendLabels(width, disparities);
      ASSERT_TRUE(width < 100 || disparities == 1 || labels.size() > 1) << width;
      if (labels.empty()) continue;
      const int step = labels.at(1).disparity;
      ASSERT_THAT(step, AnyOf(1, 2, 5, 10, 20, 50, 100, 200)) << width;
      for (std::size_t i = 0; i < labels.size(); ++i) {
        ASSERT_GT(labels[i].left, i == 0 ? -1 : labels[i - 1].right) << width;
        ASSERT_EQ(labels[i].disparity, step * static_cast<int>(i));
      }
      ASSERT_LE(labels.back().right, width);
    }
  }
}

TEST(Inputs, PicturesAndVideosGiveLuma) {
  const GrayPicture drawn = Draw(7, 5, [](int x, int y) { return std::uint8_t(10 * x + y); });
  const std::string path = testing::TempPath("a:b.pgm");
  std::ofstream(path, std::ios::binary) << "P5\n7 5\n255\n"
                                        << std::string(drawn.luma.begin(), drawn.luma.end());
  const GrayPicture read = ReadPicture(path);
  EXPECT_EQ(read.luma, drawn.luma);
  EXPECT_EQ(read.width, 7);
  EXPECT_TRUE(IsPictureFile(path));
  for (const char* clip : {"/left.mp4", "/bframes.h264"}) {
    const auto source = OpenPictureSource(QXTOOLS_CLIPS_DIR + std::string(clip));
    int count = 0;
    for (; const auto picture = source->Next(); ++count) {
      EXPECT_EQ(picture->luma.size(), 320U * 240U);
    }
    EXPECT_EQ(count, 24) << clip;
  }
}

}  // namespace
}  // namespace qx::tools
