// Semi-global matching: the sums against paths that are followed one by one over the whole picture,
// and every variant and number of threads against each other.
#include "qx_utils/stereo/kernels/semi_global.h"

#include <omp.h>

#include <array>
#include <random>

#include "qx_utils/image/kernels/cpu_features.h"
#include "tests/testing/effort.h"
#include "tests/testing/test.h"

namespace qx::utils::stereo {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Words = std::vector<std::uint16_t>;

class Threads {
 public:
  explicit Threads(int number) { omp_set_num_threads(number); }
  ~Threads() { omp_set_num_threads(before_); }
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

 private:
  const int before_ = omp_get_max_threads();
};

std::vector<SemiGlobalVariant> Supported() {
  std::size_t count = 0;
  const SemiGlobalVariant* table = SemiGlobalVariants(&count);
  std::vector<SemiGlobalVariant> supported;
  std::copy_if(table, table + count, std::back_inserter(supported), [](const auto& variant) {
    return (variant.required & ~internal::SupportedFeatures()) == 0;
  });
  return supported;
}

struct Shape {
  std::size_t width, height, disparities, first;
  int paths;
  int slant = kDefaultSlant, jump = kDefaultJump;
};

std::ostream& operator<<(std::ostream& out, const Shape& s) {
  return out << s.width << " x " << s.height << ", disparities " << s.first << " + "
             << s.disparities << ", " << s.paths << " paths, penalties " << s.slant << " and "
             << s.jump;
}

// A volume and a guide of random values; `range` limits the correlations.
struct Scene {
  Scene(const Shape& s, int least, int most, unsigned seed) {
    std::mt19937 random(seed);
    const auto any = [&](int a, int b) { return std::uniform_int_distribution<int>(a, b)(random); };
    const std::size_t pixels = s.width * s.height;
    for (std::size_t i = 0; i < pixels * s.disparities; ++i) {
      // Runs of poor matches, so that paths differ by more than a jump now and then.
      volume.push_back(static_cast<std::int8_t>(i / 7 % 3 == 0 ? least : any(least, most)));
    }
    for (std::size_t i = 0; i < pixels + s.height; ++i) {
      grey.push_back(static_cast<std::uint8_t>(any(0, 3) * any(0, 85)));
    }
    job = {volume.data(), {grey.data(), s.width + 1, s.width, s.height},
           s.width,       s.height,
           s.disparities, s.first,
           s.slant,       s.jump,
           s.paths};
  }

  std::vector<std::int8_t> volume;
  Bytes grey;
  SemiGlobalJob job{};
};

// Follows all paths of one direction over the whole picture.
class Reference {
 public:
  explicit Reference(const SemiGlobalJob& job) : job_(job) {}

  Words Sums() const {
    const Bytes forth = Half(1), back = Half(-1);
    Words sums(forth.size());
    for (std::size_t i = 0; i < sums.size(); ++i) {
      sums[i] = static_cast<std::uint16_t>(std::min(forth[i] + back[i], 255));
    }
    return sums;
  }

 private:
  int Jump() const { return std::min(job_.jump, 191 - Slant()); }
  int Slant() const { return std::min(job_.slant, 95); }

  int Cost(std::size_t x, std::size_t i, std::size_t d) const {
    const int match = d + job_.first_disparity > x ? 62 : job_.correlation[i];
    return std::min((128 - match) / 2, 255 - Slant() - Jump());
  }

  int Price(std::size_t x, std::size_t y, std::size_t from_x, std::size_t from_y) const {
    const auto grey = [&](std::size_t u, std::size_t v) {
      return int{job_.guide.data[v * job_.guide.pitch + u]};
    };
    const int step = std::abs(grey(x, y) - grey(from_x, from_y)) / 4;
    return step >= 15 ? Jump() / 5 : Jump() * 20 / (20 + 4 * step);
  }

  // The path costs of all pixels, coming from (x - dx, y - dy).
  Bytes Follow(int dx, int dy) const {
    Bytes costs(job_.height * job_.width * job_.disparities);
    for (std::size_t n = 0; n < job_.height * job_.width; ++n) {
      const bool forward = dy > 0 || (dy == 0 && dx > 0);
      const std::size_t pixel = forward ? n : job_.height * job_.width - 1 - n;
      const std::size_t x = pixel % job_.width, y = pixel / job_.width;
      const std::size_t from_x = x - static_cast<std::size_t>(dx);
      const std::size_t from_y = y - static_cast<std::size_t>(dy);
      const bool begins = from_x >= job_.width || from_y >= job_.height;
      const std::vector<int> zeros(job_.disparities, 0);
      std::vector<int> before = zeros;
      if (!begins) {
        const auto* from = &costs[(from_y * job_.width + from_x) * job_.disparities];
        before.assign(from, from + job_.disparities);
      }
      const int least = *std::min_element(before.begin(), before.end());
      const int any = begins ? 255 : least + Price(x, y, from_x, from_y);
      for (std::size_t d = 0; d < job_.disparities; ++d) {
        int best = std::min(before[d], any);
        if (d > 0) best = std::min(best, before[d - 1] + Slant());
        if (d + 1 < job_.disparities) best = std::min(best, before[d + 1] + Slant());
        const std::size_t i = pixel * job_.disparities + d;
        costs[i] = static_cast<std::uint8_t>(Cost(x, i, d) + best - least);
      }
    }
    return costs;
  }

  static Bytes Average(Bytes a, const Bytes& b) {
    for (std::size_t i = 0; i < a.size(); ++i)
      a[i] = static_cast<std::uint8_t>((a[i] + b[i] + 1) / 2);
    return a;
  }

  Bytes Half(int way) const {
    Bytes straight = Average(Follow(way, 0), Follow(0, way));
    if (job_.paths == 4) return straight;
    return Average(straight, Average(Follow(1, way), Follow(-1, way)));
  }

  const SemiGlobalJob& job_;
};

struct Selected {
  Words disparity;
  Bytes confidence;
};

Selected Select(const SemiGlobalKernel& kernel, const SemiGlobalJob& job, const Words& sums) {
  SemiGlobalScratch scratch;
  Selected selected{Words(job.width * job.height), Bytes(job.width * job.height)};
  SelectDisparities(kernel, sums.data(), job.width, job.height, job.disparities,
                    job.first_disparity, scratch, selected.disparity.data(),
                    selected.confidence.data());
  return selected;
}

// Copies rows of a volume when they are asked for.
struct LateRows {
  const SemiGlobalJob& job;
  std::vector<std::int8_t> volume =
      std::vector<std::int8_t>(job.height * job.width * job.disparities, 99);

  static void Compute(void* context, std::size_t first, std::size_t end, std::size_t thread) {
    auto& rows = *static_cast<LateRows*>(context);
    EXPECT_LT(thread, static_cast<std::size_t>(omp_get_max_threads()));
    const std::size_t pitch = rows.job.width * rows.job.disparities;
    std::copy(rows.job.correlation + first * pitch, rows.job.correlation + end * pitch,
              rows.volume.begin() + static_cast<std::ptrdiff_t>(first * pitch));
  }
};

void ExpectMatch(const SemiGlobalKernel& kernel, const SemiGlobalJob& job, const Selected& wanted,
                 SemiGlobalScratch& scratch) {
  Words disparity(job.width * job.height);
  Bytes confidence(disparity.size());
  LateRows late{job};
  SemiGlobalJob later = job;
  later.correlation = late.volume.data();
  MatchVolume(kernel, later, {LateRows::Compute, &late}, scratch, disparity.data(),
              confidence.data());
  EXPECT_EQ(disparity, wanted.disparity);
  EXPECT_EQ(confidence, wanted.confidence);
  std::fill(disparity.begin(), disparity.end(), std::uint16_t{1});
  MatchVolume(kernel, job, {}, scratch, disparity.data(), nullptr);
  EXPECT_EQ(disparity, wanted.disparity);
}

// Every variant, alone, with a thread for each pass, and with rows that follow each other.
void Compare(const Shape& shape, int least, int most) {
  const Scene scene(shape, least, most, static_cast<unsigned>(shape.width + shape.disparities));
  const Words wanted = Reference(scene.job).Sums();
  const Selected selected = Select(kSemiGlobalScalar, scene.job, wanted);
  SemiGlobalScratch scratch;
  for (const SemiGlobalVariant& variant : Supported()) {
    for (const int number : {1, 2, 5}) {
      SCOPED_TRACE(::testing::Message() << variant.name << ", " << number << " threads, " << shape);
      const Threads threads(number);
      Words sums(wanted.size());
      AggregateCosts(*variant.kernel, scene.job, scratch, sums.data());
      ASSERT_EQ(sums, wanted);
      const Selected chosen = Select(*variant.kernel, scene.job, sums);
      ASSERT_EQ(chosen.disparity, selected.disparity);
      ASSERT_EQ(chosen.confidence, selected.confidence);
      ExpectMatch(*variant.kernel, scene.job, selected, scratch);
      if (::testing::Test::HasFailure()) return;
    }
  }
}

TEST(SemiGlobal, SameSumsAsPathsFollowedOneByOne) {
  const Shape shapes[] = {
      {1, 1, 1, 0, 8},         {1, 9, 5, 0, 8},          {9, 1, 5, 2, 8},
      {2, 2, 256, 0, 8},       {7, 5, 16, 0, 4},         {33, 12, 17, 0, 8},
      {40, 3, 31, 3, 8},       {70, 9, 32, 0, 8},        {50, 6, 33, 223, 8},
      {66, 8, 63, 1, 4},       {64, 7, 64, 0, 8},        {129, 6, 65, 0, 8},
      {45, 4, 96, 0, 8},       {131, 5, 112, 9, 8},      {200, 7, 128, 0, 8},
      {170, 2, 129, 0, 8},     {17, 3, 200, 56, 4},      {230, 3, 200, 0, 8},
      {160, 3, 256, 0, 8},     {450, 8, 3, 0, 8},        {600, 7, 2, 0, 4},
      {90, 5, 40, 0, 8, 0, 0}, {90, 5, 40, 0, 8, 7, 30}, {90, 5, 40, 0, 4, 255, 255}};
  for (const Shape& shape : shapes) {
    ASSERT_NO_FATAL_FAILURE(Compare(shape, shape.height % 2 == 0 ? -13 : -128, 127));
  }
}

TEST(SemiGlobal, SameSumsForAnyShape) {
  std::mt19937 random(15);
  for (std::size_t n = 0; n < 12 * qx::testing::Effort(); ++n) {
    const std::size_t disparities = 1 + random() % 256;
    const Shape shape{1 + random() % 100,
                      1 + random() % 6,
                      disparities,
                      random() % (257 - disparities),
                      random() % 4 == 0 ? 4 : 8,
                      static_cast<int>(random() % 60),
                      static_cast<int>(60 + random() % 196)};
    ASSERT_NO_FATAL_FAILURE(Compare(shape, random() % 2 == 0 ? -20 : -128, 127));
  }
}

// One row of sums: all 100 but those that a case sets.
TEST(SemiGlobal, SelectsRefinesAndChecks) {
  struct Sum {
    std::size_t x, d;
    std::uint16_t value;
  };
  constexpr std::uint16_t kNone = 0xFFFF;
  const struct {
    const char* what;
    std::vector<Sum> sums;
    std::size_t x;
    std::size_t first;
    std::uint16_t wanted;
  } cases[] = {
      {"symmetric", {{9, 3, 20}}, 9, 0, 3 * 256},
      {"a quarter to the right", {{9, 3, 20}, {9, 4, 60}}, 9, 0, 3 * 256 + 43},
      {"a quarter to the left", {{9, 3, 20}, {9, 2, 60}}, 9, 0, 3 * 256 - 43},
      {"a tie takes the first", {{9, 3, 20}, {9, 4, 20}}, 9, 0, 3 * 256 + 128},
      {"no parabola at the ends", {{9, 7, 20}, {9, 6, 60}}, 9, 0, 7 * 256},
      {"counted from the first disparity", {{9, 3, 20}}, 9, 6, 9 * 256},
      {"leads out of the picture", {{9, 3, 20}}, 9, 7, kNone},
      {"the right pixel prefers another", {{9, 3, 20}, {11, 5, 19}}, 9, 0, kNone},
      {"the right pixel prefers a neighbour", {{9, 3, 20}, {10, 4, 19}}, 9, 0, 3 * 256},
      {"the right pixel likes both", {{9, 3, 20}, {11, 5, 20}}, 9, 0, 3 * 256},
      {"nothing matches",
       std::vector<Sum>{{9, 0, 300},
                        {9, 1, 255},
                        {9, 2, 255},
                        {9, 3, 256},
                        {9, 4, 999},
                        {9, 5, 255},
                        {9, 6, 255},
                        {9, 7, 0xFFFF}},
       9, 0, kNone},
  };
  for (const auto& c : cases) {
    constexpr std::size_t kWidth = 20, kDisparities = 8;
    Words sums(kWidth * kDisparities, 100);
    for (const Sum& sum : c.sums) sums[sum.x * kDisparities + sum.d] = sum.value;
    SemiGlobalJob job{};
    job.width = kWidth;
    job.height = 1;
    job.disparities = kDisparities;
    job.first_disparity = c.first;
    for (const SemiGlobalVariant& variant : Supported()) {
      const Selected selected = Select(*variant.kernel, job, sums);
      EXPECT_EQ(selected.disparity[c.x], c.wanted) << c.what << ", " << variant.name;
      EXPECT_EQ(selected.confidence[c.x] == 0, c.wanted == kNone) << c.what;
    }
  }
}

}  // namespace
}  // namespace qx::utils::stereo
