// Rectification: every variant of the remapping kernels byte for byte against `scalar`, `scalar`
// and the maps against arithmetic of this file's own, and what the rectifier takes and refuses.
#include "qxtools/stereo_rectifier.h"

#include <cmath>
#include <functional>
#include <numeric>
#include <random>
#include <stdexcept>

#include "qx_utils/stereo/camera/matrix3.h"
#include "qx_utils/stereo/camera/remap_table.h"
#include "qxtools/stereo_matcher.h"
#include "tests/testing/error_of.h"
#include "tests/testing/kernel_variants.h"
#include "tests/testing/stereo_frames.h"
#include "tests/testing/test.h"
#include "tests/testing/threads.h"

namespace qx::utils::stereo {
namespace {

using Bytes = std::vector<std::uint8_t>;
using testing::BytesOf;
using testing::NewFrame;

std::string TextOf(const PictureSize& size) {
  return std::to_string(size.width) + " x " + std::to_string(size.height);
}

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
  // Places are multiples of 1/128 pixel: (x, y) of a result over a source of that size.
  using Place = std::function<PicturePoint(double x, double y, const PictureSize& source)>;

  double Anywhere(std::size_t size) {
    return static_cast<double>(random_() % (128 * size + 512)) / 128 - 2;
  }

  // Runs all variants over a random picture that touches a protected page at its end or its start;
  // the result touches one at its end.
  void Check(const Place& place, const PictureSize& size, const PictureSize& source,
             std::size_t channels) {
    std::vector<PicturePoint> places;
    const RemapTable table(size, source, [&](std::size_t x, std::size_t y) {
      return places.emplace_back(place(static_cast<double>(x), static_cast<double>(y), source));
    });
    ++turn_;
    const std::size_t pitch = source.width * channels + turn_ % 4;
    const GuardedBuffer memory(
        pitch * (source.height - 1) + source.width * channels,
        turn_ % 2 == 0 ? GuardedBuffer::Guard::kEnd : GuardedBuffer::Guard::kStart);
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
      return Bytes(result.data(), result.data() + result.size());
    };
    const Bytes expected = run(kRemapScalar);
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
  const struct {
    const char* name;
    Place place;
  } kinds[] = {{"identity",
                [](double x, double y, auto&) {
                  return PicturePoint{x, y};
                }},
               {"shift",
                [](double x, double y, auto&) {
                  return PicturePoint{x - 0.75, y + 1.25};
                }},
               {"steep",
                [](double x, double y, auto&) {
                  return PicturePoint{1.625 * x, y + x * 0.125};
                }},
               {"shrink",
                [](double x, double y, auto&) {
                  return PicturePoint{2.5 * x, 3 * y};
                }},
               {"turn",
                [](double x, double y, auto&) {
                  return PicturePoint{y + 0.5, x + 0.25};
                }},
               {"outside",
                [](double x, double y, auto&) {
                  return PicturePoint{x, y - 1e9};
                }},
               {"NaN",
                [](double x, double y, auto&) {
                  return PicturePoint{x > 9 ? NAN : 1, y};
                }},
               {"random", [&](double, double, const PictureSize& source) {
                  return PicturePoint{Anywhere(source.width), Anywhere(source.height)};
                }}};
  constexpr PictureSize kSizes[] = {{1, 1}, {8, 2}, {31, 3}, {32, 4}, {33, 5}, {75, 6}};
  constexpr PictureSize kSources[] = {{1, 1}, {2, 2}, {15, 9}, {16, 3}, {17, 2}, {40, 9}, {99, 5}};
  for (const auto& kind : kinds) {
    for (const PictureSize& size : kSizes) {
      for (const PictureSize& source : kSources) {
        SCOPED_TRACE(kind.name + (' ' + TextOf(size)) + " of " + TextOf(source));
        for (const std::size_t channels : {1U, 3U}) Check(kind.place, size, source, channels);
      }
    }
  }
}

constexpr int kWidth = 64, kHeight = 48;

CameraCalibration Camera(DistortionModel model, const std::array<double, 14>& distortion) {
  CameraCalibration camera;
  camera.camera_matrix = {50, 0, 30, 0, 49, 25, 0, 0, 1};
  camera.distortion_model = model;
  camera.distortion = distortion;
  camera.rectification = RotationOf({0.03, -0.05, 0.04});
  camera.projection = {44, 0, 33, 0, 0, 44, 24, 0, 0, 0, 1, 0};
  return camera;
}

StereoCalibration Cameras(const CameraCalibration& left, const CameraCalibration& right) {
  StereoCalibration cameras;
  cameras.left = left, cameras.right = right;
  cameras.right.projection[3] = -4.4;
  cameras.has_rectification = true;
  return cameras;
}

// Cameras that see what is at rectified column x at x - 4 and at x + 3.
StereoCalibration ShiftedCameras() {
  CameraCalibration left = Camera(DistortionModel::kPlumbBob, {}), right;
  left.rectification = kIdentity3;
  left.camera_matrix = {44, 0, 30, 0, 44, 24, 0, 0, 1};
  right = left;
  left.projection[2] = 34, right.projection[2] = 27;
  return Cameras(left, right);
}

// Where the raw picture shows rectified pixel (u, v): the formulas as they are published.
PicturePoint RawPlace(const CameraCalibration& camera, double u, double v) {
  const auto& p = camera.projection;
  const Vector3 ray =
      Multiply(Transpose(camera.rectification), Vector3{(u - p[2]) / p[0], (v - p[6]) / p[5], 1});
  double x = ray[0] / ray[2], y = ray[1] / ray[2];
  const double r = std::hypot(x, y);
  const auto& d = camera.distortion;
  if (camera.distortion_model == DistortionModel::kEquidistant) {
    const double t = std::atan(r);
    const double bent = t + d[0] * std::pow(t, 3) + d[1] * std::pow(t, 5) + d[2] * std::pow(t, 7) +
                        d[3] * std::pow(t, 9);
    x *= bent / r, y *= bent / r;
  } else {
    const double radial =
        (1 + d[0] * std::pow(r, 2) + d[1] * std::pow(r, 4) + d[4] * std::pow(r, 6)) /
        (1 + d[5] * std::pow(r, 2) + d[6] * std::pow(r, 4) + d[7] * std::pow(r, 6));
    const double bent_x = x * radial + 2 * d[2] * x * y + d[3] * (r * r + 2 * x * x) +
                          d[8] * r * r + d[9] * std::pow(r, 4);
    const double bent_y = y * radial + d[2] * (r * r + 2 * y * y) + 2 * d[3] * x * y +
                          d[10] * r * r + d[11] * std::pow(r, 4);
    // The plane through (0, 0, 1) that is turned about x, then about y, seen from the origin.
    const double cx = std::cos(d[12]), sx = std::sin(d[12]), cy = std::cos(d[13]),
                 sy = std::sin(d[13]);
    const double w = sy * bent_x - cy * sx * bent_y + cy * cx;
    x = (cy * cx * (cy * bent_x + sy * sx * bent_y - sy * cx) + sy * cx * w) / w;
    y = (cy * cx * (cx * bent_y + sx) - sx * w) / w;
  }
  const auto& m = camera.camera_matrix;
  return {m[0] * x + m[2], m[4] * y + m[5]};
}

// Stripes of one pixel change by 255 levels a pixel, linearly in between: they show the place.
TEST(StereoRectifier, MapsAreThoseOfTheLensModelsToAHundredthOfAPixel) {
  constexpr auto kPlumbBob = DistortionModel::kPlumbBob;
  const CameraCalibration cameras[] = {
      Camera(kPlumbBob, {}),
      Camera(kPlumbBob, {-0.3, 0.1, 0.004, -0.006}),
      Camera(kPlumbBob, {-0.3, 0.1, 0.004, -0.006, 0.05, 0.02, -0.03, 0.04}),
      Camera(kPlumbBob, {-0.2, 0, 0, 0, 0, 0, 0, 0, 0.02, -0.01, 0.03, 0.02}),
      Camera(kPlumbBob, {-0.2, 0.1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0.04, -0.07}),
      Camera(DistortionModel::kEquidistant, {0.03, -0.02, 0.01, -0.005})};
  const auto raw = NewFrame(kQXPixelFormatRGB888, kHeight, kWidth, 3);
  for (std::size_t i = 0; i < kWidth * kHeight; ++i) {
    raw->Data()[3 * i] = i % kWidth % 2 == 0 ? 0 : 255;
    raw->Data()[3 * i + 1] = i / kWidth % 2 == 0 ? 0 : 255;
    raw->Data()[3 * i + 2] = 255;
  }
  const auto stripes = [](double place) { return 255 * std::fabs(std::remainder(place, 2)); };
  for (const CameraCalibration& camera : cameras) {
    const StereoRectifier rectifier(Cameras(ShiftedCameras().left, camera), kWidth, kHeight);
    const auto rectified = rectifier.RectifyRight(raw);
    int inside = 0;
    for (int i = 0; i < kWidth * kHeight; ++i) {
      const int row = i / kWidth;
      const auto [x, y] = RawPlace(camera, i % kWidth, row);
      const std::uint8_t* const colour = rectified->Data() + 3 * i;
      const bool is_far = !(x > -1.01 && y > -1.01 && x < kWidth + 0.01 && y < kHeight + 0.01);
      ASSERT_TRUE(!is_far || colour[2] == 0) << i;
      if (!(x > 0.01 && y > 0.01 && x < kWidth - 1.01 && y < kHeight - 1.01)) continue;
      ++inside;
      ASSERT_EQ(colour[2], 255) << i;
      ASSERT_NEAR(colour[0], stripes(x), 3.1) << i;
      ASSERT_NEAR(colour[1], stripes(y), 3.1) << i;
    }
    EXPECT_GT(inside, kWidth * kHeight / 2);
  }
}

TEST(StereoRectifier, TakesTheLumaOfDecodedFormatsInPlace) {
  const StereoRectifier rectifier(ShiftedCameras(), kWidth, kHeight);
  const auto grey = NewFrame(kQXPixelFormatGray8, kHeight, kWidth, 1);
  const auto planar = NewFrame(kQXPixelFormatYUV420P, kHeight, kWidth, 1);
  std::iota(planar->Data(), planar->Data() + planar->DataSize(), std::uint8_t{1});
  std::copy_n(planar->Data(), grey->DataSize(), grey->Data());
  const RectifiedPair pair = rectifier.Rectify(grey, planar);
  EXPECT_EQ(BytesOf(pair.left), BytesOf(rectifier.RectifyLeft(planar)));
  EXPECT_EQ(BytesOf(pair.right), BytesOf(rectifier.RectifyRight(grey)));
  EXPECT_EQ(pair.left->Data()[kWidth + 4], grey->Data()[kWidth]);
  EXPECT_EQ(pair.right->Data()[kWidth + 4], grey->Data()[kWidth + 7]);
}

TEST(StereoRectifier, DropsWhatOneOfTheCamerasDoesNotSee) {
  const StereoRectifier rectifier(ShiftedCameras(), kWidth, kHeight);
  const auto map = std::static_pointer_cast<velkar::vision::ImageFrameImpl>(
      NewFrame(kQXPixelFormatGray16, kHeight, kWidth, 1));
  auto* const values = reinterpret_cast<std::uint16_t*>(map->Data());
  const struct {
    std::uint16_t disparity;
    int columns;
  } rows[] = {
      {0, 0}, {256, 1}, {639, 2}, {640, 3}, {1280, 5}, {10240, 40}, {kMissingDisparity, 64}};
  const auto row = [&](int i) { return rows[i / kWidth % 7]; };
  for (int i = 0; i < kWidth * kHeight; ++i) values[i] = row(i).disparity;
  rectifier.DropUncovered(*map);
  for (int i = 0; i < kWidth * kHeight; ++i) {
    const int x = i % kWidth, match = x - row(i).columns;
    const bool seen = x >= 4 && match >= 0 && match <= kWidth - 4;
    ASSERT_EQ(values[i], seen ? row(i).disparity : kMissingDisparity) << i;
  }
}

TEST(StereoRectifier, RefusesWhatItCannotRectify) {
  const StereoRectifier rectifier(ShiftedCameras(), kWidth, kHeight);
  const auto good = NewFrame(kQXPixelFormatGray8, kHeight, kWidth, 1);
  const auto make = [](const std::function<void(StereoCalibration&)>& spoil, int width = kWidth) {
    StereoCalibration cameras = ShiftedCameras();
    spoil(cameras);
    const StereoRectifier made(cameras, width, kHeight);
  };
  const auto drop = [&](QXPixelFormat format, std::size_t width) {
    const auto map = std::static_pointer_cast<velkar::vision::ImageFrameImpl>(
        NewFrame(format, kHeight, width, 1));
    rectifier.DropUncovered(*map);
  };
  const auto keep = [](StereoCalibration&) {};
  const struct {
    std::function<void()> call;
    const char* error;
  } cases[] = {
      {[&] { static_cast<void>(rectifier.Rectify(nullptr, good)); }, "left: the frame is null"},
      {[&] { static_cast<void>(rectifier.Rectify(good, nullptr)); }, "right: the frame is null"},
      {[&] {
         static_cast<void>(rectifier.RectifyLeft(NewFrame(kQXPixelFormatGray8, kHeight, 65, 1)));
       },
       "left: 65 x 48 pixels, but the rectifier is for 64 x 48"},
      {[&] {
         static_cast<void>(
             rectifier.RectifyRight(NewFrame(kQXPixelFormatBGR888, kHeight, kWidth, 3)));
       },
       "right: pixel format 13"},
      {[&] {
         static_cast<void>(
             rectifier.RectifyLeft(NewFrame(kQXPixelFormatRGB888, kHeight, kWidth, 4)));
       },
       "left: 48 x 64 x 4 values, not three"},
      {[&] { drop(kQXPixelFormatGray8, kWidth); }, "disparity: pixel format 1 instead of 3"},
      {[&] { drop(kQXPixelFormatGray16, 63); }, "disparity: 48 x 63 x 1 values, but"},
      {[&] { make(keep, 0); }, "pictures of 0 x 48 pixels cannot be rectified"},
      {[&] { make(keep, 32768); }, "pictures of 32768 x 48 pixels cannot be rectified"},
      {[&] { make([](auto& c) { c.left.width = 640, c.left.height = 480; }); }, "640 x 480"},
      {[&] { make([](auto& c) { c.right.distortion[3] = NAN; }); }, "right camera's distortion"},
      {[&] { make([](auto& c) { c.left.projection[5] = 0; }); }, "left camera's projection"}};
  for (const auto& test : cases) {
    EXPECT_THAT(testing::ErrorOf<std::invalid_argument>(test.call), HasSubstr(test.error));
  }
}

}  // namespace
}  // namespace qx::utils::stereo
