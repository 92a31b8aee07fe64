#include "qxtools/argb.h"

#include <cstring>
#include <tuple>

#include "qx_utils/image/kernels/argb.h"
#include "tests/testing/kernel_variants.h"
#include "tests/testing/test.h"

namespace qx::utils::image {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kMaxPixels = 400, kShifts = 64, kCanaries = 64;

// `count` bytes of which each differs from its neighbours and no run repeats soon.
Bytes Pattern(std::size_t count) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 167 + (i >> 8) * 3 + 1);
  }
  return bytes;
}

// The conversion once more, written from the destination's side, a byte at a time.
void Widen(const std::uint8_t* in, std::size_t pixels, bool bgr, std::uint8_t* out) {
  for (std::size_t j = 0; j < 4 * pixels; ++j) {
    const std::size_t channel = j % 4, byte = bgr ? 3 - channel : channel - 1;  // A, R, G, B
    out[j] = channel == 0 ? std::uint8_t{0} : in[j / 4 * 3 + byte];
  }
}

Bytes Expected(const Bytes& src, bool bgr) {
  Bytes out(src.size() / 3 * 4);
  Widen(src.data(), src.size() / 3, bgr, out.data());
  return out;
}

// Places for one run: the source ends `gap` bytes before a protected page; the destination starts
// `shift` bytes behind a multiple of 64, between canaries.
class Arena {
 public:
  bool IsExact(ArgbRun run, const Bytes& src, std::size_t gap, std::size_t shift,
               const Bytes& expected) {
    std::uint8_t* in = source_.data() + source_.size() - gap - src.size();
    std::copy(src.begin(), src.end(), in);
    std::memset(target_, kCanary, sizeof(target_));
    std::memset(wanted_, kCanary, sizeof(wanted_));
    std::copy(expected.begin(), expected.end(), wanted_ + kShifts + shift);
    run(in, target_ + kShifts + shift, src.size() / 3);
    return std::memcmp(target_, wanted_, sizeof(target_)) == 0;
  }

 private:
  static constexpr std::uint8_t kCanary = 0xA5;
  static constexpr std::size_t kTargetBytes = 2 * kShifts + 4 * kMaxPixels + kCanaries;
  const GuardedBuffer source_{3 * kMaxPixels + kShifts};
  alignas(64) std::uint8_t target_[kTargetBytes] = {};
  std::uint8_t wanted_[kTargetBytes] = {};
};

TEST(ArgbKernels, AreExactAtEveryLengthAndAlignmentAndStayInTheirBuffers) {
  Arena arena;
  for (std::size_t pixels = 0; pixels <= kMaxPixels; ++pixels) {
    const Bytes src = Pattern(3 * pixels), rgb = Expected(src, false), bgr = Expected(src, true);
    for (const ArgbVariant& variant : testing::SupportedVariants(ArgbVariants)) {
      SCOPED_TRACE(variant.name);
      const auto& [cached, streaming] = *variant.kernel;
      for (std::size_t i = 0; i < kShifts; ++i) {
        ASSERT_TRUE(arena.IsExact(cached.rgb, src, 0, i, rgb)) << pixels << " shift " << i;
        ASSERT_TRUE(arena.IsExact(cached.bgr, src, i, kShifts - 1 - i, bgr))
            << pixels << " gap " << i;
        ASSERT_TRUE(streaming.rgb == nullptr || (arena.IsExact(streaming.rgb, src, i, 0, rgb) &&
                                                 arena.IsExact(streaming.bgr, src, i, 0, bgr)))
            << pixels << " streaming, gap " << i;
      }
    }
  }
}

TEST(ArgbKernels, LargePicturesAreExactWhereverTheyStart) {
  const Bytes src = Pattern(3 * (kArgbStreamingBytes / 4 + 37));
  const Bytes expected = Expected(src, true);
  const GuardedBuffer target(expected.size() + kShifts, GuardedBuffer::Guard::kStart);
  for (const ArgbVariant& variant : testing::SupportedVariants(ArgbVariants)) {
    SCOPED_TRACE(variant.name);
    for (const std::size_t shift : {0U, 1U, 4U, 60U, 64U}) {
      std::memset(target.data(), 0xEE, target.size());
      std::uint8_t* out = target.data() + shift;
      WidenToArgb(*variant.kernel, &ArgbRuns::bgr, src.data(), out, src.size() / 3);
      ASSERT_TRUE(std::equal(expected.begin(), expected.end(), out)) << shift;
      ASSERT_TRUE(shift == 0 || out[-1] == 0xEE);
      ASSERT_TRUE(shift == 64 || out[expected.size()] == 0xEE);
    }
  }
}

TEST(CvtColorArgb, PutsAnAlphaOfZeroInFront) {
  unsigned char src[] = {10, 20, 30, 40, 50, 60}, dst[11];
  std::memset(dst, 7, sizeof(dst));
  EXPECT_EQ(CvtColorRGB2ARGB(src, 6, dst, 11), 0);
  EXPECT_THAT(dst, ElementsAre(0, 10, 20, 30, 0, 40, 50, 60, 7, 7, 7));
  EXPECT_EQ(CvtColorBGR2ARGB(src, 3, dst, 4), 0);
  EXPECT_THAT(dst, ElementsAre(0, 30, 20, 10, 0, 40, 50, 60, 7, 7, 7));
  EXPECT_EQ(CvtColorRGB2ARGB(nullptr, 0, nullptr, 0), 0);
  EXPECT_EQ(CvtColorBGR2ARGB(src, 0, nullptr, 99), 0);
}

// Overlapping buffers once gave other bytes on each instruction set: kernels redo the last pixels
// and read ahead of what they write.
TEST(CvtColorArgb, OverlappingBuffersAreConvertedByteByByte) {
  constexpr std::size_t kPixels = 150;
  for (std::size_t to = 0; to <= 3 * kPixels; ++to) {
    for (const std::size_t from : {std::size_t{0}, kPixels, 2 * kPixels}) {
      for (const bool bgr : {false, true}) {
        Bytes actual = Pattern(8 * kPixels), expected = actual;
        Widen(expected.data() + from, kPixels, bgr, expected.data() + to);
        (bgr ? CvtColorBGR2ARGB : CvtColorRGB2ARGB)(actual.data() + from, 3 * kPixels,
                                                    actual.data() + to, 4 * kPixels);
        ASSERT_EQ(actual, expected) << "from " << from << " to " << to << (bgr ? " BGR" : " RGB");
      }
    }
  }
}

TEST(CvtColorArgbDeathTest, LengthsThatDoNotFitAreFatal) {
  const std::tuple<std::size_t, std::size_t, const char*> cases[] = {
      {4, 100, "Check failed: src_len % 3 == 0 \\(1 vs\\. 0\\) \n"},
      {5, 0, "Check failed: src_len % 3 == 0 \\(2 vs\\. 0\\) \n"},
      {6, 7, "Check failed: dst_len / 4 >= src_len / 3 \\(1 vs\\. 2\\) \n"},
  };
  unsigned char src[6] = {}, dst[100];
  for (const auto& [src_len, dst_len, text] : cases) {
    EXPECT_DEATH(CvtColorRGB2ARGB(src, src_len, dst, dst_len), text);
    EXPECT_DEATH(CvtColorBGR2ARGB(src, src_len, dst, dst_len), text);
  }
}

}  // namespace
}  // namespace qx::utils::image
