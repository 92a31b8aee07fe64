#include "fuzz/image_copy_properties.h"

#include <numeric>
#include <stdexcept>
#include <tuple>

#include "tests/testing/test.h"

namespace qx::utils::image {
namespace {

TEST(CopyImage, CopiesTheOverlapAndNothingElse) {
  std::uint8_t pattern[251];
  std::iota(std::begin(pattern), std::end(pattern), std::uint8_t{0});
  for (int format = 0; format < 20; ++format) {
    for (const std::size_t width : {16U, 39U, 640U}) {
      for (const std::size_t rows : {0U, 2U, 7U}) {
        const fuzzing::Picture a = {width, rows}, b = {40, 6};
        for (const bool own_copier : {false, true}) {
          fuzzing::CheckCopyImage(a, b, format, own_copier, pattern, 251);
          fuzzing::CheckCopyImage(b, a, format, own_copier, pattern, 251);
        }
      }
    }
  }
}

TEST(CopyImage, RefusesWithOneErrorLineAndCopiesNothing) {
  std::uint8_t a[64] = {}, b[64] = {};
  const std::tuple<void*, void*, std::size_t, std::size_t, int, const char*> cases[] = {
      {nullptr, nullptr, 4, 4, 7, "dst address is nullptr"},
      {a, nullptr, 4, 4, 7, "src address is nullptr"},
      {a, b, 4, 4, 7, "not support format 7"},
      {a, b, 4, 4, 17, "not support format 17"},
      {a, b, 4, 4, 0, "not support format 0"},
      {a, b, 4, 4, 16, "not support format 16"},
      {a, b, 3, 3, 5, "h_stride % 2 == 0"},
      {a, b, 3, 4, 6, "w_stride % 2 == 0"},
  };
  for (const auto& [dst, src, w, h, format, message] : cases) {
    const LogCapture log;
    const auto never = [](void*, std::size_t, void*, std::size_t) { FAIL() << "a row was copied"; };
    EXPECT_EQ(CopyImage(dst, w, h, src, w, h, static_cast<QXPixelFormat>(format), never), -1);
    EXPECT_THAT(log.Messages(google::ERROR), ElementsAre(message));
  }
}

// Moving rows closer together in place was once a memcpy over itself.
TEST(CopyImage, RowsMoveCloserTogetherInPlace) {
  std::vector<std::uint8_t> rows(40 * 10), expected(rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) rows[i] = static_cast<std::uint8_t>(i % 251);
  expected = rows;
  for (std::size_t i = 0; i < 32 * 10; ++i) expected[i] = rows[i / 32 * 40 + i % 32];
  EXPECT_EQ(CopyImage(rows.data(), 32, 10, rows.data(), 40, 10, kQXPixelFormatGray8), 0);
  EXPECT_EQ(rows, expected);
  MemcpyFunc(rows.data() + 1, 8, rows.data(), 8);
  EXPECT_TRUE(std::equal(expected.begin(), expected.begin() + 8, rows.begin() + 1));
}

TEST(CopyImage, LeavesTheCopiersExceptionsToTheCaller) {
  std::uint8_t a[64] = {}, b[64] = {};
  const auto throwing = [](void*, std::size_t, void*, std::size_t) {
    throw std::runtime_error("lost device");
  };
  EXPECT_THROW(CopyImage(a, 4, 4, b, 4, 4, kQXPixelFormatGray8, throwing), std::runtime_error);
  EXPECT_THROW(CopyImage(a, 4, 4, b, 4, 4, kQXPixelFormatGray8, nullptr), std::bad_function_call);
  EXPECT_EQ(CopyImage(a, 4, 0, b, 4, 4, kQXPixelFormatGray8, nullptr), 0);
}

TEST(MemcpyFunc, ChecksTheCapacity) {
  std::uint8_t from[4] = {1, 2, 3, 4}, to[4] = {};
  const LogCapture log;
  MemcpyFunc(to, 2, from, 3);
  EXPECT_THAT(to, ElementsAre(0, 0, 0, 0));
  EXPECT_THAT(log.Messages(google::ERROR), ElementsAre("dst_size >= src_size"));
  MemcpyFunc(to, 3, from, 3);
  EXPECT_THAT(to, ElementsAre(1, 2, 3, 0));
  MemcpyFunc(nullptr, 0, nullptr, 0);
  EXPECT_EQ(log.Messages().size(), 1U);
}

TEST(AlignmentHelper, RoundsUpIn32Bits) {
  const struct {
    unsigned int value, alignment, result;
  } cases[] = {{1, 16, 16},
               {16, 16, 16},
               {17, 16, 32},
               {5, 0, 0},
               {7, 3, 9},
               {0xFFFFFFFF, 16, 0},
               {0xFFFFFFFF, 1, 0xFFFFFFFF}};
  for (const auto& c : cases) EXPECT_EQ(AlignmentHelper(c.value, c.alignment), c.result);
  ReleaseResources();
}

}  // namespace
}  // namespace qx::utils::image
