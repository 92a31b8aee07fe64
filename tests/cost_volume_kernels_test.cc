// Every variant that this processor runs, byte for byte against `scalar`.
#include <cmath>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <random>

#include "qx_utils/image/kernels/cost_volume.h"
#include "qx_utils/internal/cpu_features.h"
#include "qxtools/instruction_sets.h"
#include "tests/testing/test.h"

namespace qx {
namespace utils {
namespace image {
namespace {

constexpr std::uint32_t kSeed = 20;
constexpr std::size_t kRows = 3;
constexpr std::uint8_t kCanary = 0xEE;

using Sizes = std::initializer_list<std::size_t>;

struct Shape {
  std::size_t width, channels, disparities;
};

std::int8_t* Values(const GuardedBuffer& buffer) {
  return reinterpret_cast<std::int8_t*>(buffer.data());
}

// Two inputs that end (or begin) at a protected page.
class CostVolumeKernels : public ::testing::Test {
 protected:
  using Value = std::function<int(bool left)>;

  void Compare(const Shape& shape, float scale, const Value& value,
               GuardedBuffer::Guard guard = GuardedBuffer::Guard::kEnd) {
    const GuardedBuffer left(kRows * shape.width * shape.channels, guard);
    const GuardedBuffer right(left.size(), guard);
    for (std::size_t i = 0; i < left.size(); ++i) {
      left.data()[i] = static_cast<std::uint8_t>(value(true));
      right.data()[i] = static_cast<std::uint8_t>(value(false));
    }
    const GuardedBuffer expected(kRows * shape.width * shape.disparities);
    const GuardedBuffer actual(expected.size(), guard);
    CostVolumeJob job{Values(left), Values(right),  Values(expected),
                      shape.width,  shape.channels, shape.disparities,
                      scale};
    std::memset(expected.data(), kCanary, expected.size());
    kCostVolumeScalar.rows(job, 1, kRows, nullptr);  // the first row keeps its canaries
    job.cost = Values(actual);
    std::size_t count = 0;
    const CostVolumeVariant* table = CostVolumeVariants(&count);
    for (std::size_t v = 0; v < count; ++v) {
      if ((table[v].required & ~internal::SupportedFeatures()) != 0) continue;
      const std::size_t bytes = table[v].kernel->scratch_bytes(job);
      const GuardedBuffer scratch((bytes + kCostVolumeAlignment - 1) / kCostVolumeAlignment *
                                  kCostVolumeAlignment);
      std::memset(scratch.data(), 0xA5, scratch.size());
      std::memset(actual.data(), kCanary, actual.size());
      table[v].kernel->rows(job, 1, kRows, scratch.data());
      ASSERT_EQ(std::memcmp(actual.data(), expected.data(), actual.size()), 0)
          << table[v].name << " width " << shape.width << " channels " << shape.channels
          << " disparities " << shape.disparities << " scale " << scale << " seed " << kSeed;
    }
  }

  Value Any() {
    return [this](bool) { return static_cast<int>(random_() % 256) - 128; };
  }
  Value OneOf(std::vector<int> values) {
    return [this, values](bool) { return values[random_() % values.size()]; };
  }

  std::mt19937 random_{kSeed};
};

TEST_F(CostVolumeKernels, RunOnThisProcessor) {
  std::size_t count = 0;
  const CostVolumeVariant* table = CostVolumeVariants(&count);
  const auto supported = internal::SupportedFeatures();
  std::size_t named = 0;
  EXPECT_STREQ(table[count - 1].name, "scalar");
  EXPECT_EQ(internal::BestVariant(table, count, 0).name, table[count - 1].name);
  for (std::size_t v = 0; v < count; ++v) {  // QXTOOLS_FORCE_ISA reaches every variant
    for (const auto& isa : internal::CompiledIsas()) {
      if (std::strcmp(isa.name, table[v].name) != 0) continue;
      EXPECT_STREQ(internal::BestVariant(table, count, isa.features).name, isa.name);
      ++named;
    }
  }
  EXPECT_EQ(named, count);
  std::size_t active = 0;
  for (const InstructionSet& set : InstructionSets()) {
    EXPECT_TRUE(set.supported || !set.active) << set.name;
    active += set.active ? 1 : 0;
  }
  EXPECT_EQ(active, 1U);
#if defined(__x86_64__) || defined(__aarch64__)
  if (supported != 0) {
    EXPECT_NE(internal::BestVariant(table, count, supported).required, 0U);
  }
#endif
}

TEST_F(CostVolumeKernels, SizesAroundTileEdges) {
  for (const std::size_t width :
       Sizes{1, 2, 3, 4, 5, 7, 12, 13, 15, 16, 17, 19, 20, 21, 33, 40, 41, 63, 64, 65, 81, 163}) {
    for (const std::size_t disparities : Sizes{1, 2, 15, 16, 17, 31, 32, 40, 48, 64, 97, 130}) {
      for (const std::size_t channels : Sizes{32, 96}) {
        const auto guard = (width + disparities) % 3 == 0 ? GuardedBuffer::Guard::kStart
                                                          : GuardedBuffer::Guard::kEnd;
        ASSERT_NO_FATAL_FAILURE(Compare({width, channels, disparities}, 0.001F, Any(), guard));
      }
    }
  }
}

TEST_F(CostVolumeKernels, ChannelCounts) {
  for (const std::size_t channels : Sizes{32, 33, 48, 63, 64, 96, 128, 160, 512, 2048}) {
    for (const std::size_t width : Sizes{1, 23, 44}) {
      ASSERT_NO_FATAL_FAILURE(Compare({width, channels, 18}, 1e-3F, Any()));
    }
  }
}

TEST_F(CostVolumeKernels, RowsWiderThanOnePanel) {
  ASSERT_NO_FATAL_FAILURE(Compare({331, 2048, 5}, 1e-4F, Any()));
  ASSERT_NO_FATAL_FAILURE(Compare({187, 2048, 130}, 1e-4F, Any()));
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
    ASSERT_NO_FATAL_FAILURE(Compare({37, 64, 19}, scale, Any()));
    ASSERT_NO_FATAL_FAILURE(Compare({37, 64, 64}, scale, Any()));
  }
}

}  // namespace
}  // namespace image
}  // namespace utils
}  // namespace qx
