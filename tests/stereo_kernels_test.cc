// Feature maps, medians, speckles and filling: every variant that this processor runs, byte for
// byte against `scalar`, and `scalar` against what it should mean.
#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <random>

#include "qx_utils/stereo/kernels/disparity_map.h"
#include "qx_utils/stereo/kernels/features.h"
#include "tests/testing/kernel_variants.h"
#include "tests/testing/test.h"
#include "tests/testing/threads.h"

namespace qx::utils::stereo {
namespace {

using Map = std::vector<std::uint16_t>;

constexpr std::uint16_t kNone = kMissing;

struct Size {
  std::size_t width, height;
};

using testing::SupportedVariants;

class StereoKernels : public ::testing::Test {
 protected:
  std::vector<std::int8_t> Features(const FeatureKernel& kernel, const Size& size,
                                    const std::function<int()>& grey, std::size_t shift,
                                    std::size_t gap) {
    // The last row ends at a protected page, and so does the map.
    const std::size_t pitch = size.width + gap;
    const testing::GuardedBuffer picture(pitch * (size.height - 1) + size.width);
    std::generate_n(picture.data(), picture.size(),
                    [&] { return static_cast<std::uint8_t>(grey()); });
    const testing::GuardedBuffer map(size.width * size.height * kFeatureChannels);
    auto* const features = reinterpret_cast<std::int8_t*>(map.data());
    std::fill_n(features, map.size(), std::int8_t{-99});
    ComputeFeatureMap(kernel, {picture.data(), pitch, size.width, size.height}, shift, features);
    return {features, features + map.size()};
  }

  // Disparities of a slanted surface with steps, noise and, in `missing` of 8 places, gaps.
  Map Surface(const Size& size, unsigned missing) {
    Map map(size.width * size.height);
    for (std::size_t i = 0; i < map.size(); ++i) {
      const bool gap = random_() % 64 < 8 * missing || (missing > 0 && i / 20 % 7 == 0);
      const auto disparity = i % size.width * 40 + i / 50 % 3 * 704 + random_() % 38 * 8;
      map[i] = gap ? kNone : static_cast<std::uint16_t>(disparity % 65281);
    }
    return map;
  }

  std::mt19937 random_{15};
  int turn_ = 0;  // 1, 2 and 3 threads in turns
};

TEST_F(StereoKernels, FeaturesAreTheSameForEveryVariantAndThreadCount) {
  const std::function<int()> textures[] = {
      [this] { return static_cast<int>(random_()); },
      [this] { return 100 + static_cast<int>(random_() % 4); },  // hardly above the noise
      [this] { return 255 * static_cast<int>(random_() % 2); },  // the steepest
      [this] { return random_() % 33 == 0 ? 255 : 0; }};         // isolated points
  constexpr Size kSizes[] = {{1, 1},   {2, 3},   {5, 2},   {15, 7},  {16, 4},  {17, 9}, {33, 8},
                             {127, 2}, {128, 3}, {129, 3}, {145, 4}, {271, 5}, {300, 9}};
  for (const Size& size : kSizes) {
    for (const auto& grey : textures) {
      const std::size_t shift = random_() % (size.width + 2), gap = random_() % 3;
      const auto at = random_;
      const auto expected = Features(kFeaturesScalar, size, grey, shift, gap);
      for (const FeatureVariant& variant : SupportedVariants(FeatureVariants)) {
        const testing::Threads threads(1 + turn_++ % 3);
        random_ = at;
        ASSERT_EQ(Features(*variant.kernel, size, grey, shift, gap), expected)
            << variant.name << ' ' << size.width << 'x' << size.height << " shift " << shift;
      }
    }
  }
}

// The correlation of two neighbourhoods is that of the textbook, whatever their brightness and
// contrast, and the cost volume's bytes hold it.
TEST_F(StereoKernels, ProductsOfFeaturesAreCorrelations) {
  constexpr int kWidth = 40, kChannels = kFeatureChannels;
  std::vector<std::uint8_t> grey(kWidth * 7);
  for (std::size_t i = 0; i < grey.size(); ++i) {
    grey[i] = static_cast<std::uint8_t>(i % kWidth < 20 ? random_() : grey[i - 20] / 3U + 90);
  }
  std::vector<std::int8_t> map(grey.size() * kFeatureChannels);
  ComputeFeatureMap(kFeaturesScalar, {grey.data(), kWidth, kWidth, 7}, 0, map.data());
  const auto correlation = [&](int a, int b) {
    double sum_a = 0, sum_b = 0, ab = 0, aa = 0, bb = 0, product = 0;
    for (std::size_t i = 0; i < kFeatureChannels; ++i) {
      const std::uint8_t* const neighbour =
          grey.data() + 3 * kWidth + kFeatureOffsets[i].dy * kWidth + kFeatureOffsets[i].dx;
      const double u = neighbour[a], v = neighbour[b];
      sum_a += u, sum_b += v, ab += u * v, aa += u * u, bb += v * v;
      const std::int8_t* const value = map.data() + 3 * kWidth * kChannels + i;
      product += value[a * kChannels] * value[b * kChannels];
    }
    const double textbook = (ab - sum_a * sum_b / 32) /
                            std::sqrt((aa - sum_a * sum_a / 32) * (bb - sum_b * sum_b / 32));
    EXPECT_NEAR(product / (252 * 252), textbook, 0.03) << a << ' ' << b;
    EXPECT_LT(product / 16 / 32, 127.5);
    return textbook;
  };
  for (int a = 3; a < 17; ++a) {
    EXPECT_GT(correlation(a, a + 20), 0.99);
    for (int b = 3; b < 17; ++b) correlation(a, b);
  }
}

TEST_F(StereoKernels, FeaturesOfFlatPicturesAreNull) {
  const auto white = [] { return 255; };
  EXPECT_THAT(Features(kFeaturesScalar, {8, 8}, white, 0, 0), Each(0));
}

// Returns: the map without gaps, and its medians of radius 1 and 2; each written over a copy of
// the map, which is its input when `in_place`.
std::array<Map, 3> Smooth(const MedianKernel& kernel, const Map& map, const Size& size,
                          bool in_place, DisparityScratch& scratch) {
  std::array<Map, 3> results = {map, map, map};
  const auto input = [&](Map& result) { return in_place ? result.data() : map.data(); };
  for (const int radius : {1, 2}) {
    Map& result = results[static_cast<std::size_t>(radius)];
    MedianFilter(kernel, input(result), size.width, size.height, radius, scratch, result.data());
  }
  FillMissing(kernel, input(results[0]), size.width, size.height, scratch, results[0].data());
  return results;
}

TEST_F(StereoKernels, MediansAndFillingAreTheSameForEveryVariantAndThreadCount) {
  DisparityScratch scratch, other;
  constexpr Size kSizes[] = {{1, 1},  {1, 6},  {2, 2},   {7, 5},   {15, 4},
                             {16, 3}, {17, 9}, {33, 20}, {70, 31}, {3, 1}};
  for (const Size& size : kSizes) {
    for (unsigned missing = 0; missing <= 8; missing += 2) {
      const Map map = Surface(size, missing);
      const auto expected = Smooth(kMedianScalar, map, size, false, scratch);
      EXPECT_THAT(expected[0], Each(::testing::Ne(kNone)));
      for (const MedianVariant& variant : SupportedVariants(MedianVariants)) {
        const testing::Threads threads(1 + turn_++ % 3);
        ASSERT_EQ(Smooth(*variant.kernel, map, size, true, other), expected)
            << variant.name << ' ' << size.width << ' ' << missing;
      }
    }
  }
}

// Every way in which values of a window can be missing, against sorting what is left.
TEST_F(StereoKernels, MediansOfWindowsWithMissingValues) {
  for (const MedianVariant& variant : SupportedVariants(MedianVariants)) {
    for (unsigned gaps = 0; gaps < 512; ++gaps) {
      Map window(3 * 20, kNone), present;
      for (unsigned i = 0; i < 9; ++i) {
        if ((gaps >> i & 1) != 0) continue;
        present.push_back(static_cast<std::uint16_t>(random_() % 5 == 0 ? 0 : random_() % 65281));
        window[i / 3 * 20 + i % 3] = present.back();
      }
      if (present.empty()) continue;
      std::sort(present.begin(), present.end());
      Map medians(kMedianGroup);
      variant.kernel->square3(window.data() + 21, 20, medians.data());
      ASSERT_EQ(medians[0], present[present.size() / 2]) << variant.name << ' ' << gaps;
    }
  }
}

TEST_F(StereoKernels, SpecklesAreThePatchesThatAFloodFillFinds) {
  DisparityScratch scratch;
  for (int trial = 0; trial < 60; ++trial) {
    const Size size{1 + random_() % 40, 1 + random_() % 30};
    const Map map = Surface(size, static_cast<unsigned>(trial) % 5);
    const std::size_t smallest = 1 + random_() % 40;
    Map expected = map;
    std::vector<bool> seen(map.size());
    for (std::size_t seed = 0; seed < map.size(); ++seed) {
      std::vector<std::size_t> patch;
      const auto visit = [&](std::size_t from, std::size_t to) {
        if (seen[to] || map[to] == kNone || std::abs(map[to] - map[from]) > 256) return;
        seen[to] = true;
        patch.push_back(to);
      };
      visit(seed, seed);
      for (std::size_t n = 0; n < patch.size(); ++n) {
        const std::size_t i = patch[n];
        if (i % size.width > 0) visit(i, i - 1);
        if (i % size.width + 1 < size.width) visit(i, i + 1);
        if (i >= size.width) visit(i, i - size.width);
        if (i + size.width < map.size()) visit(i, i + size.width);
      }
      if (patch.size() >= smallest) continue;
      for (const std::size_t i : patch) expected[i] = kNone;
    }
    Map result = map;
    RemoveSpeckles(smallest, size.width, size.height, scratch, result.data());
    ASSERT_EQ(result, expected) << size.width << 'x' << size.height << ' ' << smallest;
  }
}

TEST_F(StereoKernels, GapsTakeTheDisparityFromBehind) {
  const struct {
    std::size_t width;
    Map map, filled;
  } cases[] = {{6, {9, kNone, kNone, kNone, 5, 5}, {9, 5, 5, 5, 5, 5}},
               {4, {kNone, kNone, 3, kNone}, {3, 3, 3, 3}},
               {3, {kNone, kNone, kNone, 7, kNone, 7, kNone, kNone, kNone}, Map(9, 7)},
               {2, {kNone, kNone}, {0, 0}}};
  DisparityScratch scratch;
  for (const auto& c : cases) {
    Map filled(c.map.size());
    FillMissing(kMedianScalar, c.map.data(), c.width, c.map.size() / c.width, scratch,
                filled.data());
    EXPECT_EQ(filled, c.filled);
  }
}

}  // namespace
}  // namespace qx::utils::stereo
