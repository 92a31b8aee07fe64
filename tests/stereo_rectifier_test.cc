// Rectification: every variant of the remapping kernels byte for byte against `scalar`, `scalar`
// and the maps against arithmetic of this file's own, and what the rectifier takes and refuses.
#include "qxtools/stereo_rectifier.h"

#include <cmath>
#include <functional>
#include <random>

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

std::string TextOf(const PictureSize& size) {
  return std::to_string(size.width) + " x " + std::to_string(size.height);
}

// The value at a place of a picture in a black surrounding, without rounding.
double ValueAt(const GreyView& picture, std::size_t channels, std::size_t channel,
               const PicturePoint& place) {
  double value = 0;
  if (!(std::fabs(place.x) < 1e6 && std::fabs(place.y) < 1e6)) return value;
  const double left = std::floor(place.x), top = std::floor(place.y);
  for (const double x : {left, left + 1}) {
    for (const double y : {top, top + 1}) {
      const auto column = static_cast<std::size_t>(x), row = static_cast<std::size_t>(y);
      if (x < 0 || y < 0 || column >= picture.width || row >= picture.height) continue;
      const double share = (1 - std::fabs(place.x - x)) * (1 - std::fabs(place.y - y));
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

}  // namespace
}  // namespace qx::utils::stereo
