#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "tests/testing/temp_path.h"
#include "tests/testing/test.h"
#include "tools/stereo_color.h"
#include "tools/stereo_disparity.h"
#include "tools/stereo_evaluation.h"
#include "tools/stereo_output.h"
#include "tools/stereo_source.h"

namespace qx::tools {
namespace {

constexpr float kNone = kMissing;

template <typename Grey>
GrayPicture Draw(int width, int height, Grey grey) {
  GrayPicture picture{width, height, {}};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) picture.luma.push_back(grey(x, y));
  }
  return picture;
}

DisparityMap MapOf(int width, std::vector<float> values) {
  DisparityMap map(width, static_cast<int>(values.size()) / width);
  map.values = std::move(values);
  return map;
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
