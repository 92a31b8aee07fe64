#include "tools/pictures/disparity_picture.h"

#include <cmath>
#include <filesystem>
#include <stdexcept>

#include "qxtools/stereo_matcher.h"
#include "tests/testing/temp_path.h"
#include "tests/testing/test.h"
#include "tools/stereo_pipeline.h"

namespace qx::tools {
namespace {

constexpr std::uint16_t kNone = utils::stereo::kMissingDisparity;

template <typename T>
Image<T> RowOf(std::vector<T> values) {
  Image<T> row(static_cast<int>(values.size()), 1);
  row.values = std::move(values);
  return row;
}

TEST(Evaluation, CountsKnownPixelsAndMissingAsWrong) {
  const auto truth = RowOf<std::uint8_t>({0, 40, 40, 40, 40, 20});
  const auto map =
      RowOf<std::uint16_t>({99 * 256, 10 * 256, 11 * 256 + 128, 12 * 256 + 128, kNone, 5 * 256});
  const Accuracy accuracy = Evaluate(map, truth, 4);
  EXPECT_DOUBLE_EQ(accuracy.missing, 0.2);
  EXPECT_DOUBLE_EQ(accuracy.off_1, 0.6);
  EXPECT_DOUBLE_EQ(accuracy.off_2, 0.4);
  EXPECT_THROW(Evaluate(RowOf<std::uint16_t>({256}), truth, 4), std::runtime_error);
  EXPECT_THROW(Evaluate(RowOf<std::uint16_t>({256}), RowOf<std::uint8_t>({0}), 1),
               std::runtime_error);
}

TEST(DisparityPicture, ZeroMeansMissingInIntegersAndInfinityInFloats) {
  const auto map = RowOf<std::uint16_t>({kNone, 0, 384, 255 * 256});
  EXPECT_THAT(SamplesOf(map).values, ElementsAre(0, 1, 384, 255 * 256));
  EXPECT_THAT(PixelsOf(map).values, ElementsAre(HUGE_VALF, 0, 1.5F, 255));
}

TEST(DisparityPicture, ColoursGetLighterTowardsTheCameraAndTheLegendShowsThem) {
  const auto lightness = [](Rgb c) { return 0.2126 * c.r + 0.7152 * c.g + 0.0722 * c.b; };
  for (int i = 0; i < 100; ++i) {
    const auto value = static_cast<float>(i);
    EXPECT_LT(lightness(ColourOf(value / 100)), lightness(ColourOf((value + 1) / 100)) + 0.5) << i;
  }
  EXPECT_GT(lightness(ColourOf(1)), lightness(ColourOf(0)) + 150);
  DisparityImage map(200, 10, kNone);
  map.Row(0)[0] = 8 * 256;
  map.Row(0)[1] = 71 * 256;
  const Image<Rgb> picture = Paint(map, {8, 64});
  ASSERT_GT(picture.height, 10);
  EXPECT_EQ(picture.Row(0)[0].b, ColourOf(0).b);
  EXPECT_EQ(picture.Row(0)[1].r, ColourOf(1).r);
  EXPECT_EQ(picture.Row(5)[100].b, 0);             // missing: black
  EXPECT_EQ(picture.Row(16)[6].b, ColourOf(0).b);  // ends of the bar
  EXPECT_EQ(picture.Row(16)[193].r, ColourOf(1).r);
  for (const int width : {1, 7, 30}) Paint(DisparityImage(width, 1), {0, 256});  // clipped
}

// Once the labels of narrow pictures were drawn over each other, and their steps were uneven.
TEST(DisparityPicture, LegendLabelsAreRoundEvenlySpacedAndApart) {
  for (int width = 1; width < 700; ++width) {
    for (const DisparityRange range :
         {DisparityRange{0, 1}, {0, 2}, {0, 16}, {7, 64}, {10, 112}, {0, 256}}) {
      const auto labels = LegendLabels(width, range);
      ASSERT_TRUE(width < 100 || range.count == 1 || labels.size() > 1) << width;
      if (labels.empty()) continue;
      const int step = labels.at(1).disparity - labels.at(0).disparity;
      ASSERT_THAT(step, AnyOf(1, 2, 5, 10, 20, 50, 100, 200)) << width;
      ASSERT_LT(labels[0].disparity - range.first, step);
      for (std::size_t i = 0; i < labels.size(); ++i) {
        ASSERT_GT(labels[i].left, i == 0 ? -1 : labels[i - 1].right) << width;
        ASSERT_EQ(labels[i].disparity, labels[0].disparity + step * static_cast<int>(i));
        ASSERT_EQ(labels[i].disparity % step, 0);
      }
      ASSERT_LE(labels.back().right, width);
    }
  }
}

// The limits are what the matcher reached in floating point, and 0.5 and 0.3 % more.
TEST(StereoPipeline, IsAsAccurateAsItWasInFloatingPoint) {
  const std::string clips = QXTOOLS_CLIPS_DIR "/";
  StereoJob job;
  job.inputs.left = clips + "aloe-left.pgm";
  job.inputs.right = clips + "aloe-right.pgm";
  job.ground_truth = clips + "aloe-disparity-left.pgm";
  job.ground_truth_scale = 2;
  job.matching.disparities = 112;
  job.directory = testing::TempPath("accuracy");
  const StereoSummary summary = RunStereo(job);
  EXPECT_LT(summary.before->off_1, 0.1878 + 0.005);
  EXPECT_LT(summary.before->off_2, 0.1727 + 0.003);
  EXPECT_LT(summary.after->off_1, 0.0939 + 0.005);
  EXPECT_LT(summary.after->off_2, 0.0568 + 0.003);
  std::filesystem::remove_all(job.directory);
}

}  // namespace
}  // namespace qx::tools
