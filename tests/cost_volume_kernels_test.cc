// Every variant that this processor runs, byte for byte against `scalar`.
#include <cmath>
#include <functional>
#include <random>

#include "fuzz/cost_volume_properties.h"
#include "qxtools/instruction_sets.h"
#include "tests/testing/test.h"

namespace qx::utils::image {
namespace {

using Sizes = std::initializer_list<std::size_t>;
using Guard = GuardedBuffer::Guard;

class CostVolumeKernels : public ::testing::Test {
 protected:
  using Value = std::function<int(bool left)>;

  void Compare(const fuzzing::Shape& shape, float scale, const Value& value,
               Guard guard = Guard::kEnd) {
    ASSERT_EQ(DifferingVariant(shape, scale, value, guard), "")
        << " width " << shape.width << " channels " << shape.channels << " disparities "
        << shape.disparities << " scale " << scale;
  }
  Value OneOf(std::vector<int> values) {
    return [this, values](bool) { return values[random_() % values.size()]; };
  }

  std::mt19937 random_{20};
  const Value any_ = [this](bool) { return static_cast<int>(random_() % 256); };
};

TEST_F(CostVolumeKernels, EachCanBeForcedAndOneIsActive) {
  std::size_t count = 0, active = 0;
  const CostVolumeVariant* table = CostVolumeVariants(&count);
  EXPECT_EQ(internal::BestVariant(table, count, 0).name, std::string("scalar"));
  std::vector<std::string> names, reached;
  for (std::size_t v = 0; v < count; ++v) names.emplace_back(table[v].name);
  for (const auto& isa : internal::CompiledIsas()) {
    const std::string best = internal::BestVariant(table, count, isa.features).name;
    if (best == isa.name) reached.push_back(best);
  }
  EXPECT_EQ(reached, names);
  for (const InstructionSet& set : InstructionSets()) {
    EXPECT_TRUE(set.supported || !set.active) << set.name;
    active += set.active ? 1 : 0;
  }
  EXPECT_EQ(active, 1U);
}

TEST_F(CostVolumeKernels, SizesAroundTileEdges) {
  for (const std::size_t width :
       Sizes{1, 2, 3, 4, 5, 7, 12, 13, 15, 16, 17, 19, 20, 21, 33, 40, 41, 63, 64, 65, 81, 163}) {
    for (const std::size_t disparities : Sizes{1, 2, 15, 16, 17, 31, 32, 40, 48, 64, 97, 130}) {
      for (const std::size_t channels : Sizes{32, 96}) {
        const auto guard = (width + disparities) % 3 == 0 ? Guard::kStart : Guard::kEnd;
        ASSERT_NO_FATAL_FAILURE(Compare({width, channels, disparities}, 0.001F, any_, guard));
      }
    }
  }
}

TEST_F(CostVolumeKernels, ChannelCountsAndRowsWiderThanOnePanel) {
  for (const std::size_t channels : Sizes{32, 33, 48, 63, 64, 96, 128, 160, 512, 2048}) {
    for (const std::size_t width : Sizes{1, 23, 44}) {
      ASSERT_NO_FATAL_FAILURE(Compare({width, channels, 18}, 1e-3F, any_));
    }
  }
  // Left pixels past the end of the last row were read where the last panel is narrow.
  for (const std::size_t width : Sizes{83, 90, 331}) {
    ASSERT_NO_FATAL_FAILURE(Compare({width, 2048, 5}, 1e-4F, any_));
    ASSERT_NO_FATAL_FAILURE(Compare({width, 2048, 18}, 1e-4F, any_));
  }
  ASSERT_NO_FATAL_FAILURE(Compare({187, 2048, 130}, 1e-4F, any_));
}

TEST_F(CostVolumeKernels, ExtremeValues) {
  const Value cases[] = {[](bool) { return -128; }, [](bool) { return 127; },
                         [](bool left) { return left ? -128 : 127; },
                         [](bool left) { return left ? 127 : -128; }, OneOf({-128, 127})};
  for (const Value& value : cases) {
    for (const std::size_t channels : Sizes{32, 64, 2048}) {
      ASSERT_NO_FATAL_FAILURE(Compare({22, channels, 17}, 1e-5F, value));
      ASSERT_NO_FATAL_FAILURE(Compare({22, channels, 48}, 3e-3F, value));
    }
  }
}

TEST_F(CostVolumeKernels, Scales) {
  const float inf = std::numeric_limits<float>::infinity();
  const Value small = OneOf({-1, 0, 0, 1});
  for (const float scale :
       {0.0F,    -0.0F,      0.5F,      -0.5F,         1.5F,        -2.5F,       1e-45F,
        1e-30F,  1e6F,       -1e6F,     6.1e-2F,       6.103e-2F,   6.105e-2F,   3e7F,
        1e8F,    -1e9F,      1e30F,     3e38F,         inf,         -inf,        std::nanf(""),
        0.0625F, 7.8125e-3F, 4.923077F, 2147483648.0F, 33554432.0F, 0.038461538F}) {
    ASSERT_NO_FATAL_FAILURE(Compare({37, 32, 19}, scale, small));
    ASSERT_NO_FATAL_FAILURE(Compare({37, 64, 19}, scale, any_));
    ASSERT_NO_FATAL_FAILURE(Compare({37, 64, 64}, scale, any_));
  }
}

}  // namespace
}  // namespace qx::utils::image
