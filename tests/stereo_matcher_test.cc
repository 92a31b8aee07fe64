#include "qxtools/stereo_matcher.h"

#include <omp.h>

#include <array>
#include <cmath>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "qxtools/cost_volume.h"
#include "tests/testing/test.h"

namespace qx::utils::stereo {
namespace {

using velkar::vision::ImageFrame;
using velkar::vision::ImageFrameImpl;
using FramePtr = std::shared_ptr<ImageFrame>;
using Map = std::vector<std::uint16_t>;

FramePtr NewFrame(QXPixelFormat format, std::size_t height, std::size_t width,
                  std::size_t channels) {
  const std::size_t bytes = height * width * channels * (format == kQXPixelFormatGray16 ? 2 : 1);
  const auto memory = std::make_shared<std::vector<std::uint8_t>>(bytes);
  return ImageFrameImpl::Create(format, memory->data(), static_cast<std::uint32_t>(height),
                                static_cast<std::uint32_t>(width),
                                static_cast<std::uint32_t>(channels), memory);
}

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

// A disparity map as a program reads it: in pixels, -1 where missing.
struct Pixels {
  explicit Pixels(const FramePtr& frame) : width(frame->Width()), values(ValuesOf(frame)) {}

  double At(int x, int y) const {
    const auto value = values[static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x)];
    return value == kMissingDisparity ? -1 : value / 256.0;
  }

  std::size_t width;
  Map values;
};

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
    const Pixels measured(result.disparity), filled(result.filled);
    for (int y = 4; y < 36; ++y) {
      for (int x = 28; x < 92; ++x) {
        ASSERT_NEAR(measured.At(x, y), disparity, 0.3) << x << ',' << y;
      }
      for (int x = 0; x + 2 < disparity; ++x) ASSERT_EQ(measured.At(x, y), -1);
      for (int x = 0; x < 96; ++x) ASSERT_NEAR(filled.At(x, y), disparity, 2);
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
  const StereoResult result = StereoMatcher(Disparities(24)).Match(left, right);
  const Pixels measured(result.disparity), filled(result.filled);
  for (int y = 20; y < 40; ++y) {
    for (int x = 44; x < 48; ++x) {
      ASSERT_EQ(measured.At(x, y), -1) << x << ',' << y;
      ASSERT_NEAR(filled.At(x, y), 4, 1) << x << ',' << y;
    }
    for (int x = 54; x < 76; ++x) ASSERT_NEAR(measured.At(x, y), 12, 0.5);
    for (int x = 90; x < 110; ++x) ASSERT_NEAR(measured.At(x, y), 4, 0.5);
  }
}

// The header's recipe.
StereoResult MatchInSteps(const FramePtr& left, const FramePtr& right,
                          const StereoOptions& options) {
  const auto left_map = ComputeFeatures(left);
  const auto right_map = ComputeFeatures(right, options.first_disparity);
  const auto volume = NewFrame(kQXPixelFormatUint8, left->Height(), left->Width(),
                               static_cast<std::size_t>(options.disparities));
  image::CostVolume(left_map.get(), right_map.get(), volume.get());
  StereoResult result = SelectDisparities(AggregateCosts(volume, left, options), options);
  result.filled = FillDisparities(result.disparity);
  return result;
}

std::string BytesOf(const FramePtr& frame) {
  return std::string(reinterpret_cast<const char*>(frame->Data()), frame->DataSize());
}

std::string BytesOf(const StereoResult& result) {
  return BytesOf(result.disparity) + BytesOf(result.filled) + BytesOf(result.confidence);
}

TEST(StereoMatcher, GivesTheSameBytesForAnyNumberOfThreadsInStepsAndOnTheBoard) {
  struct Case {
    int width, height, disparities, first, paths;
  };
  const Case cases[] = {{1, 1, 1, 0, 8},    {1, 5, 3, 0, 8},     {5, 1, 8, 2, 8},
                        {3, 2, 256, 0, 4},  {70, 3, 200, 56, 8}, {40, 31, 16, 0, 4},
                        {41, 30, 17, 3, 8}, {130, 9, 255, 1, 8}};
  const Texture texture(4);
  const int threads = omp_get_max_threads();
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
      omp_set_num_threads(team);
      EXPECT_EQ(BytesOf(matcher.Match(left, right)), expected) << team << " threads";
      EXPECT_EQ(BytesOf(MatchInSteps(left, right, options)), expected) << team << " threads";
    }
    omp_set_num_threads(threads);
    EXPECT_EQ(
        BytesOf(matcher.MatchFeatures(ComputeFeatures(left), ComputeFeatures(right, first), left)),
        expected);
    options.backend = StereoBackend::kFpga;
    EXPECT_EQ(BytesOf(StereoMatcher(options).Match(left, right)), expected);
  }
}

}  // namespace
}  // namespace qx::utils::stereo
