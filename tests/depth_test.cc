#include "qxtools/depth.h"

#include <cmath>
#include <functional>
#include <stdexcept>

#include "qxtools/stereo_matcher.h"
#include "tests/testing/error_of.h"
#include "tests/testing/stereo_frames.h"
#include "tests/testing/test.h"

namespace qx::utils::stereo {
namespace {

using testing::ErrorOf;
using testing::NewFrame;
using testing::StereoFrame;

constexpr std::uint16_t kNone = kMissingDisparity;
const StereoGeometry kGeometry = {100, 2, 1, 2, 0.5};  // z = 50 / disparity

template <typename T>
StereoFrame FrameOf(QXPixelFormat format, std::size_t width, const std::vector<T>& values,
                    std::size_t channels = 1) {
  auto frame = NewFrame(format, values.size() / width / channels, width, channels);
  std::copy(values.begin(), values.end(), reinterpret_cast<T*>(frame->Data()));
  return frame;
}

std::string DepthsOf(const DepthMap& map) {
  std::string text;
  for (std::uint32_t i = 0; i < map.Width() * map.Height(); ++i) {
    text += (i == 0 ? "" : " ") + ::testing::PrintToString(map.Row(0)[i]);
  }
  return text;
}

TEST(Depth, FollowsTheFormulaAndItsLimits) {
  // Disparities of 10, 50, 0.5, 0 and 4 pixels.
  const auto disparity =
      FrameOf<std::uint16_t>(kQXPixelFormatGray16, 3, {2560, kNone, 12800, 128, 0, 1024});
  const auto confidence = FrameOf<std::uint8_t>(kQXPixelFormatGray8, 3, {9, 0, 10, 200, 255, 11});
  StereoGeometry shifted = kGeometry;
  shifted.center_x_right = 6;  // 4 pixels more
  StereoGeometry converging = kGeometry;
  converging.center_x_right = -2;  // 4 pixels fewer: 4 pixels and less are at infinity
  const struct {
    StereoGeometry geometry;
    DepthLimits limits;
    const char* depths = nullptr;
  } cases[] = {{kGeometry, {}, "5 nan 1 100 inf 12.5"},
               {shifted, {}, "3.57143 nan 0.925926 11.1111 12.5 6.25"},
               {converging, {}, "8.33333 nan 1.08696 inf inf inf"},
               {kGeometry, {5}, "5 nan nan 100 inf 12.5"},
               {kGeometry, {5.001, 1000}, "nan nan nan 100 nan 12.5"},
               {kGeometry, {0, 12.5}, "5 nan 1 nan nan 12.5"},
               {kGeometry, {0, 1000, 10}, "nan nan 1 100 nan 12.5"}};
  for (const auto& c : cases) {
    EXPECT_EQ(DepthsOf(ComputeDepth(disparity, c.geometry, c.limits, confidence)), c.depths);
  }
}

TEST(Depth, MillimetresAreRoundedAndZeroWhereTheyDoNotFit) {
  DepthMap depth(11, 1);
  const float metres[] = {1,        0.0004F,  0.0005F, 0.0625F,   65.535F,
                          65.5354F, 65.5356F, 1e9F,    HUGE_VALF, -1};
  std::copy(std::begin(metres), std::end(metres), depth.Row(0));  // the last one stays missing
  const auto frame = DepthInMillimetres(depth, 1000);
  const auto* values = reinterpret_cast<const std::uint16_t*>(frame->Data());
  EXPECT_THAT(std::vector<int>(values, values + 11),
              ElementsAre(1000, 0, 1, 63, 65535, 65535, 0, 0, 0, 0, 0));
  EXPECT_EQ(*reinterpret_cast<std::uint16_t*>(DepthInMillimetres(depth, 25.4)->Data()), 25);
}

TEST(Depth, PointsLieOnTheRaysOfTheirPixels) {
  DepthMap depth(3, 2);
  depth.Row(0)[0] = 50;
  depth.Row(0)[1] = HUGE_VALF;
  depth.Row(1)[2] = 200;
  const auto confidence = FrameOf<std::uint8_t>(kQXPixelFormatGray8, 3, {1, 2, 3, 4, 5, 6});
  std::vector<std::uint8_t> bytes(18);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(10 * i);
  const auto rgb = FrameOf(kQXPixelFormatRGB888, 3, bytes, 3);
  bytes.resize(6);
  const auto grey = FrameOf(kQXPixelFormatGray8, 3, bytes);
  const struct {
    StereoFrame picture, confidence;
    std::vector<int> first, second;  // colours and confidence
  } cases[] = {{rgb, confidence, {0, 10, 20, 1}, {150, 160, 170, 6}},
               {grey, confidence, {0, 0, 0, 1}, {50, 50, 50, 6}},
               {nullptr, nullptr, {255, 255, 255, 0}, {255, 255, 255, 0}}};
  StereoGeometry geometry = kGeometry;
  geometry.center_y = 0.5;
  for (const auto& c : cases) {
    const std::vector<Point> points = ComputePoints(depth, geometry, c.picture, c.confidence);
    ASSERT_THAT(points, SizeIs(2));
    const auto place = [](const Point& p) { return std::vector<float>{p.x, p.y, p.z}; };
    const auto rest = [](const Point& p) { return std::vector<int>{p.r, p.g, p.b, p.confidence}; };
    EXPECT_THAT(place(points[0]), ElementsAre(-1, -0.25, 50));
    EXPECT_THAT(place(points[1]), ElementsAre(0, 1, 200));
    EXPECT_EQ(rest(points[0]), c.first);
    EXPECT_EQ(rest(points[1]), c.second);
  }
}

TEST(Depth, RefusesWhatIsOutOfRange) {
  const auto disparity = FrameOf<std::uint16_t>(kQXPixelFormatGray16, 3, {1, 2, 3});
  const auto other = FrameOf<std::uint8_t>(kQXPixelFormatGray8, 2, {1, 2});
  const DepthMap depth(3, 1);
  const auto geometry = [](double focal_length, double baseline, double center) {
    return StereoGeometry{focal_length, center, 0, 0, baseline};
  };
  const auto compute = [&](const StereoGeometry& g, const DepthLimits& limits = {},
                           const StereoFrame& confidence = nullptr) {
    return [=] { ComputeDepth(disparity, g, limits, confidence); };
  };
  const struct {
    std::function<void()> call;
    const char* text;
  } cases[] = {{compute(geometry(0, 1, 0)), "geometry: focal_length is 0"},
               {compute(geometry(1, -1, 0)), "geometry: baseline is -1"},
               {compute(geometry(1, 1, NAN)), "geometry: center_x is nan"},
               {compute(kGeometry, {2, 1}), "limits: depths of 2"},
               {compute(kGeometry, {NAN}), "limits: depths of nan"},
               {compute(kGeometry, {0, 1, 256}), "limits: least_confidence is 256"},
               {compute(kGeometry, {0, 1, 1}), "limits: least_confidence needs a confidence map"},
               {compute(kGeometry, {}, other), "confidence: 1 x 2 x 1 values instead of 1 x 3 x 1"},
               {[&] { ComputeDepth(nullptr, kGeometry); }, "disparity: the frame is null"},
               {[&] { ComputeDepth(other, kGeometry); }, "disparity: pixel format 1 instead of 3"},
               {[&] { DepthInMillimetres(depth, 0); }, "millimetres_per_unit is 0"},
               {[&] { DepthInMillimetres(DepthMap(), 1); }, "depth: the map is empty"},
               {[&] { ComputePoints(DepthMap(), kGeometry); }, "depth: the map is empty"},
               {[&] { ComputePoints(depth, kGeometry, other); }, "picture: 1 x 2 x 1 values"},
               {[&] { ComputePoints(depth, kGeometry, disparity); }, "picture: pixel format 3"}};
  for (const auto& c : cases) {
    EXPECT_THAT(ErrorOf<std::invalid_argument>(c.call), ::testing::StartsWith(c.text));
  }
}

}  // namespace
}  // namespace qx::utils::stereo
