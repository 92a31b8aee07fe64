// Rectification: every variant of the remapping kernels byte for byte against `scalar`, `scalar`
// and the maps against arithmetic of this file's own, and what the rectifier takes and refuses.
#include "qxtools/stereo_rectifier.h"

#include <cmath>
#include <functional>
#include <numeric>
#include <random>
#include <stdexcept>

#include "qx_utils/stereo/camera/matrix3.h"
#include "qx_utils/stereo/camera/rectification_table.h"
#include "qx_utils/stereo/kernels/remap_fetch-inl.h"
#include "qxtools/stereo_matcher.h"
#include "tests/testing/error_of.h"
#include "tests/testing/kernel_variants.h"
#include "tests/testing/stereo_frames.h"
#include "tests/testing/test.h"
#include "tests/testing/threads.h"

namespace qx::utils::stereo {
namespace {

using testing::NewFrame;
using velkar::vision::ImageFrameImpl;

// The value at a place of a picture in a black surrounding, without rounding.
double ValueAt(const GreyView& picture, std::size_t channels, std::size_t channel,
               const PicturePoint& place) {
  double value = 0;
  if (!(std::fabs(place.x) < 1e6 && std::fabs(place.y) < 1e6)) return value;
  const auto left = static_cast<std::ptrdiff_t>(std::floor(place.x));
  const auto top = static_cast<std::ptrdiff_t>(std::floor(place.y));
  for (const std::ptrdiff_t x : {left, left + 1}) {
    for (const std::ptrdiff_t y : {top, top + 1}) {
      const auto column = static_cast<std::size_t>(x), row = static_cast<std::size_t>(y);
      if (column >= picture.width || row >= picture.height) continue;
      const double share = (1 - std::fabs(place.x - static_cast<double>(x))) *
                           (1 - std::fabs(place.y - static_cast<double>(y)));
      value += share * picture.data[row * picture.pitch + column * channels + channel];
    }
  }
  return value;
}

class StereoRemap : public ::testing::Test {
 protected:
  // Where pixel (x, y) comes from: (xx * x + xy * y + x0, yx * x + yy * y + y0), in multiples of
  // 1/128 pixel; or from anywhere.
  struct Kind {
    double xx = 0, xy = 0, x0 = 0, yx = 0, yy = 0, y0 = 0;
    bool random = false;
  };

  double Anywhere(std::size_t size) {
    return static_cast<double>(random_() % (128 * size + 512)) / 128 - 2;
  }

  // Runs all variants over a random picture that touches a protected page at its end or its start;
  // the result touches one at its end.
  void Check(const Kind& kind, const PictureSize& size, const PictureSize& source,
             std::size_t channels) {
    std::vector<PicturePoint> places;
    const RemapTable table(size, source, [&](std::size_t column, std::size_t row) {
      const auto x = static_cast<double>(column), y = static_cast<double>(row);
      places.push_back({kind.xx * x + kind.xy * y + kind.x0, kind.yx * x + kind.yy * y + kind.y0});
      if (kind.random) places.back() = {Anywhere(source.width), Anywhere(source.height)};
      return places.back();
    });
    ++turn_;
    const std::size_t pitch = source.width * channels + turn_ % 4;
    const GuardedBuffer memory(
        pitch * (source.height - 1) + source.width * channels,
        turn_ / 2 % 2 == 0 ? GuardedBuffer::Guard::kEnd : GuardedBuffer::Guard::kStart);
    std::generate_n(memory.data(), memory.size(), [&] {
      return static_cast<std::uint8_t>(random_() % 4 == 0 ? random_() % 2 * 255 : random_());
    });
    const GreyView picture{memory.data(), pitch, source.width, source.height};
    const auto run = [&](const RemapKernel& kernel) {
      const testing::Threads threads(turn_ % 8 == 0 ? 3 : 1);
      const GuardedBuffer result(size.width * size.height * channels);
      std::fill_n(result.data(), result.size(), std::uint8_t{0xEE});
      RemapPicture(channels == 1 ? kernel.grey : kernel.colour, table.View(), picture,
                   result.data());
      return std::vector<std::uint8_t>(result.data(), result.data() + result.size());
    };
    const auto expected = run(kRemapScalar);
    for (std::size_t i = 0; i < expected.size(); ++i) {
      const PicturePoint& at = places[i / channels];
      ASSERT_NEAR(expected[i], ValueAt(picture, channels, i % channels, at), 0.52) << i;
      ASSERT_EQ(table.IsCovered(i / channels % size.width, i / channels / size.width),
                at.x >= 0 && at.y >= 0 && at.x <= static_cast<double>(source.width - 1) &&
                    at.y <= static_cast<double>(source.height - 1));
    }
    for (const RemapVariant& variant : testing::SupportedVariants(RemapVariants)) {
      ASSERT_EQ(run(*variant.kernel), expected) << variant.name;
    }
  }

  std::mt19937 random_{16};
  unsigned turn_ = 0;
};

TEST_F(StereoRemap, GivesTheSameBytesForEveryVariantAndThreadCount) {
  const Kind kinds[] = {{1, 0, 0, 0, 1, 0},   {1, 0, -0.75, 0, 1, 1.25}, {1.625, 0, 0, 0.125, 1, 0},
                        {2.5, 0, 0, 0, 3, 0}, {0, 1, 0.5, 1, 0, 0.25},   {1, 0, 0, 0, 1, -1e9},
                        {1, 0, NAN, 0, 1, 0}, {0, 0, 0, 0, 0, 0, true}};
  constexpr PictureSize kSizes[] = {{1, 1}, {8, 2}, {31, 3}, {32, 4}, {33, 5}, {75, 6}};
  constexpr PictureSize kSources[] = {{1, 1}, {2, 2}, {15, 9}, {16, 3}, {17, 2}, {40, 9}, {99, 5}};
  for (const Kind& kind : kinds) {
    for (const PictureSize& size : kSizes) {
      for (const PictureSize& source : kSources) {
        SCOPED_TRACE(::testing::Message() << &kind - kinds << ' ' << size.width << " of "
                                          << source.width << 'x' << source.height);
        for (const std::size_t channels : {1U, 3U}) Check(kind, size, source, channels);
      }
    }
  }
}

constexpr int kWidth = 64, kHeight = 48;

// Where pixels (4, 6), (57, 9) and (20, 40) come from, as cv::initUndistortRectifyMap and its
// fisheye form compute it.
TEST(StereoRectifier, MapsAreOpenCvsToAHundredthOfAPixel) {
  constexpr auto kPlumbBob = DistortionModel::kPlumbBob;
  const struct {
    DistortionModel model;
    std::array<double, 14> distortion;
    PicturePoint places[3];
  } cases[] = {{kPlumbBob, {}, {{0.1378, 8.4350}, {59.6111, 8.3471}, {18.5171, 44.7731}}},
               {kPlumbBob,
                {-0.3, 0.1, 0.004, -0.006},
                {{3.4203, 10.4265}, {55.6823, 10.5693}, {19.0730, 43.7468}}},
               {kPlumbBob,
                {-0.3, 0.1, 0.004, -0.006, 0.05, 0.02, -0.03, 0.04},
                {{3.4467, 10.4412}, {55.6535, 10.5855}, {19.1030, 43.6952}}},
               {kPlumbBob,
                {-0.2, 0, 0, 0, 0, 0, 0, 0, 0.02, -0.01, 0.03, 0.02},
                {{3.3108, 10.9051}, {57.2076, 10.7983}, {19.2045, 44.2830}}},
               {kPlumbBob,
                {-0.2, 0.1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0.04, -0.07},
                {{3.5795, 10.2959}, {58.2956, 9.1908}, {18.9314, 43.9980}}},
               {DistortionModel::kEquidistant,
                {0.03, -0.02, 0.01, -0.005},
                {{3.6030, 10.3572}, {56.2034, 10.2636}, {19.1957, 43.6046}}}};
  for (const auto& test : cases) {
    CameraCalibration camera;
    camera.camera_matrix = {50, 0, 30, 0, 49, 25, 0, 0, 1};
    camera.distortion_model = test.model;
    camera.distortion = test.distortion;
    camera.rectification = RotationOf({0.03, -0.05, 0.04});
    camera.projection = {44, 0, 33, 0, 0, 44, 24, 0, 0, 0, 1, 0};
    const RemapTable table = RectificationTable(camera, {kWidth, kHeight});
    const RemapView map = table.View();
    const PicturePoint* place = test.places;
    for (const std::size_t at : {6 * map.stride + 4, 9 * map.stride + 57, 40 * map.stride + 20}) {
      const auto [x, y] = PositionOf(map, at);
      EXPECT_NEAR(static_cast<double>(x) + map.fx[at] / 128.0, place->x, 0.0099);
      EXPECT_NEAR(static_cast<double>(y) + map.fy[at] / 128.0, place->y, 0.0099);
      ++place;
    }
  }
}

// Cameras that see what is at rectified column x at x - 4 and at x + 3.
StereoCalibration ShiftedCameras() {
  StereoCalibration cameras;
  cameras.left.camera_matrix = {44, 0, 30, 0, 44, 24, 0, 0, 1};
  cameras.left.rectification = kIdentity3;
  cameras.left.projection = {44, 0, 34, 0, 0, 44, 24, 0, 0, 0, 1, 0};
  cameras.right = cameras.left;
  cameras.right.projection[2] = 27, cameras.right.projection[3] = -4.4;
  cameras.has_rectification = true;
  return cameras;
}

TEST(StereoRectifier, TakesLumaInPlaceAndDropsWhatOneOfTheCamerasDoesNotSee) {
  const StereoRectifier rectifier(ShiftedCameras(), kWidth, kHeight);
  const auto raw = NewFrame(kQXPixelFormatYUV420P, kHeight, kWidth, 1);
  std::iota(raw->Data(), raw->Data() + raw->DataSize(), std::uint8_t{1});
  const RectifiedPair pair = rectifier.Rectify(raw, raw);
  for (int x = 4; x < kWidth - 3; ++x) {
    ASSERT_EQ(pair.left->Data()[kWidth + x], raw->Data()[kWidth + x - 4]);
    ASSERT_EQ(pair.right->Data()[kWidth + x], raw->Data()[kWidth + x + 3]);
  }
  const auto map = NewFrame(kQXPixelFormatGray16, kHeight, kWidth, 1);
  auto* const values = reinterpret_cast<std::uint16_t*>(map->Data());
  const struct {
    std::uint16_t disparity;
    int columns;
  } rows[] = {
      {0, 0}, {256, 1}, {639, 2}, {640, 3}, {1280, 5}, {10240, 40}, {kMissingDisparity, 64}};
  const auto row = [&](int i) { return rows[i / kWidth % 7]; };
  for (int i = 0; i < kWidth * kHeight; ++i) values[i] = row(i).disparity;
  rectifier.DropUncovered(static_cast<ImageFrameImpl&>(*map));
  for (int i = 0; i < kWidth * kHeight; ++i) {
    const int x = i % kWidth, match = x - row(i).columns;
    const bool seen = x >= 4 && match >= 0 && match <= kWidth - 4;
    ASSERT_EQ(values[i], seen ? row(i).disparity : kMissingDisparity) << i;
  }
}

TEST(StereoRectifier, RefusesWhatItCannotRectify) {
  const StereoRectifier rectifier(ShiftedCameras(), kWidth, kHeight);
  using Call = std::function<void()>;
  using Spoil = void (*)(StereoCalibration&);
  const auto frame = [](QXPixelFormat format, std::size_t width, std::size_t channels) {
    return NewFrame(format, kHeight, width, channels);
  };
  const auto pair = [&](const auto& left, const auto& right) -> Call {
    return [=, &rectifier] { static_cast<void>(rectifier.Rectify(left, right)); };
  };
  const auto drop = [&](const auto& map) -> Call {
    return [=, &rectifier] { rectifier.DropUncovered(static_cast<ImageFrameImpl&>(*map)); };
  };
  const auto make = [](int width, Spoil spoil) -> Call {
    StereoCalibration cameras = ShiftedCameras();
    spoil(cameras);
    return [=] { const StereoRectifier made(cameras, width, kHeight); };
  };
  const testing::StereoFrame good = frame(kQXPixelFormatGray8, kWidth, 1), none;
  const std::pair<Call, const char*> cases[] = {
      {pair(none, good), "left: the frame is null"},
      {pair(good, none), "right: the frame is null"},
      {pair(frame(kQXPixelFormatGray8, 65, 1), good), "left: 65 x 48 pixels, but the rectifier"},
      {pair(good, frame(kQXPixelFormatBGR888, kWidth, 3)), "right: pixel format 13"},
      {pair(frame(kQXPixelFormatRGB888, kWidth, 4), good), "left: 48 x 64 x 4 values, not three"},
      {drop(good), "disparity: pixel format 1 instead of 3"},
      {drop(frame(kQXPixelFormatGray16, 63, 1)), "disparity: 48 x 63 x 1 values, but"},
      {make(0, [](auto&) {}), "pictures of 0 x 48 pixels cannot be rectified"},
      {make(32768, [](auto&) {}), "pictures of 32768 x 48 pixels cannot be rectified"},
      {make(kWidth, [](auto& c) { c.left.width = 640, c.left.height = 480; }), "640 x 480"},
      {make(kWidth, [](auto& c) { c.right.distortion[3] = NAN; }), "right camera's distortion"},
      {make(kWidth, [](auto& c) { c.left.projection[5] = 0; }), "left camera's projection"}};
  for (const auto& test : cases) {
    EXPECT_THAT(testing::ErrorOf<std::invalid_argument>(test.first), HasSubstr(test.second));
  }
}

}  // namespace
}  // namespace qx::utils::stereo
