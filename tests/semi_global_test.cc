// Semi-global matching: the sums against paths that are followed one by one over the whole picture,
// and every variant and number of threads against each other.
#include "qx_utils/stereo/kernels/semi_global.h"

#include <omp.h>

#include <random>

#include "tests/testing/effort.h"
#include "tests/testing/kernel_variants.h"
#include "tests/testing/test.h"
#include "tests/testing/threads.h"

namespace qx::utils::stereo {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Words = std::vector<std::uint16_t>;

using testing::SupportedVariants;
using testing::Threads;

struct Shape {
  std::size_t width, height, disparities, first;
  int paths;
  int slant = kDefaultSlant, jump = kDefaultJump;
};

std::ostream& operator<<(std::ostream& out, const Shape& s) {
  return out << s.width << 'x' << s.height << ", disparities " << s.first << '+' << s.disparities
             << ", " << s.paths << " paths, penalties " << s.slant << ' ' << s.jump;
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
      std::vector<int> before(job_.disparities);
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

using Selected = std::pair<Words, Bytes>;  // disparities and confidence

Selected Select(const SemiGlobalKernel& kernel, const SemiGlobalJob& job, const Words& sums) {
  SemiGlobalScratch scratch;
  Selected selected{Words(job.width * job.height), Bytes(job.width * job.height)};
  SelectDisparities(kernel, sums.data(), job.width, job.height, job.disparities,
                    job.first_disparity, scratch, selected.first.data(), selected.second.data());
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
  Selected selected{Words(job.width * job.height), Bytes(job.width * job.height)};
  auto& [disparity, confidence] = selected;
  LateRows late{job};
  SemiGlobalJob later = job;
  later.correlation = late.volume.data();
  MatchVolume(kernel, later, {LateRows::Compute, &late}, scratch, disparity.data(),
              confidence.data());
  EXPECT_EQ(selected, wanted);
  std::fill(disparity.begin(), disparity.end(), std::uint16_t{1});
  MatchVolume(kernel, job, {}, scratch, disparity.data(), nullptr);
  EXPECT_EQ(disparity, wanted.first);
}

// Every variant, alone, with a thread for each pass, and with rows that follow each other.
void Compare(const Shape& shape, int least, int most) {
  const Scene scene(shape, least, most, static_cast<unsigned>(shape.width + shape.disparities));
  const Words wanted = Reference(scene.job).Sums();
  const Selected selected = Select(kSemiGlobalScalar, scene.job, wanted);
  SemiGlobalScratch scratch;
  for (const SemiGlobalVariant& variant : SupportedVariants(SemiGlobalVariants)) {
    for (const int number : {1, 2, 5}) {
      SCOPED_TRACE(::testing::Message() << variant.name << ", " << number << " threads, " << shape);
      const Threads threads(number);
      Words sums(wanted.size());
      AggregateCosts(*variant.kernel, scene.job, scratch, sums.data());
      ASSERT_EQ(sums, wanted);
      ASSERT_EQ(Select(*variant.kernel, scene.job, sums), selected);
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
    Shape shape{1 + random() % 100, 1 + random() % 6, 1 + random() % 256, 0, 8};
    shape.first = random() % (257 - shape.disparities);
    if (random() % 4 == 0) shape.paths = 4;
    shape.slant = static_cast<int>(random() % 60);
    shape.jump = static_cast<int>(60 + random() % 196);
    ASSERT_NO_FATAL_FAILURE(Compare(shape, random() % 2 == 0 ? -20 : -128, 127));
  }
}

// One row of sums: all 100 but those of pixel 9, or `x`, that a case sets.
TEST(SemiGlobal, SelectsRefinesAndChecks) {
  struct Sum {
    std::size_t d;
    std::uint16_t value;
    std::size_t x = 9;
  };
  constexpr std::uint16_t kNone = 0xFFFF;
  const struct {
    const char* what;
    std::vector<Sum> sums;
    std::size_t first;
    std::uint16_t wanted;
    std::uint16_t others = 100;
  } cases[] = {
      {"symmetric", {{3, 20}}, 0, 3 * 256},
      {"a quarter to the right", {{3, 20}, {4, 60}}, 0, 3 * 256 + 43},
      {"a quarter to the left", {{3, 20}, {2, 60}}, 0, 3 * 256 - 43},
      {"a tie takes the first", {{3, 20}, {4, 20}}, 0, 3 * 256 + 128},
      {"no parabola at the ends", {{7, 20}, {6, 60}}, 0, 7 * 256},
      {"counted from the first disparity", {{3, 20}}, 6, 9 * 256},
      {"leads out of the picture", {{3, 20}}, 7, kNone},
      {"the right pixel prefers another", {{3, 20}, {5, 19, 11}}, 0, kNone},
      {"the right pixel prefers a neighbour", {{3, 20}, {4, 19, 10}}, 0, 3 * 256},
      {"the right pixel likes both", {{3, 20}, {5, 20, 11}}, 0, 3 * 256},
      {"nothing matches", {{0, 300}, {3, 256}, {4, 999}, {7, 0xFFFF}}, 0, kNone, 255},
  };
  for (const auto& c : cases) {
    constexpr std::size_t kWidth = 20, kDisparities = 8;
    Words sums(kWidth * kDisparities, c.others);
    for (const Sum& sum : c.sums) sums[sum.x * kDisparities + sum.d] = sum.value;
    const SemiGlobalJob job{nullptr, {}, kWidth, 1, kDisparities, c.first, 0, 0, 8};
    for (const SemiGlobalVariant& variant : SupportedVariants(SemiGlobalVariants)) {
      const auto [disparity, confidence] = Select(*variant.kernel, job, sums);
      EXPECT_EQ(disparity[9], c.wanted) << c.what << ", " << variant.name;
      EXPECT_EQ(confidence[9] == 0, c.wanted == kNone) << c.what;
    }
  }
}

}  // namespace
}  // namespace qx::utils::stereo
