#include "qx_utils/h264_h265_info_parse/start_code.h"

#include <random>

#include "tests/testing/test.h"

namespace qx::utils {
namespace {

// Sizes around the vectors and blocks of the search; few byte values, so that near misses abound.
TEST(FindStartCode, AgreesWithAPlainSearchAndReadsNothingOutside) {
  constexpr std::uint8_t kCode[] = {0, 0, 0, 1};
  std::mt19937 random(7);
  for (std::size_t size = 0; size < 300; ++size) {
    for (unsigned int kind = 0; kind < 24; ++kind) {
      const auto guard = kind % 2 == 0 ? GuardedBuffer::Guard::kEnd : GuardedBuffer::Guard::kStart;
      const GuardedBuffer buffer(size, guard);
      const std::uint8_t* const end = buffer.data() + size;
      for (std::size_t i = 0; i < size; ++i) {
        const std::uint64_t draw = random() % (16 + 8 * (kind / 2));
        buffer.data()[i] = static_cast<std::uint8_t>(draw < 2 ? draw : draw < 6 ? 0 : 0x80 + draw);
      }
      const std::uint8_t* from = buffer.data();
      do {
        const std::uint8_t* const found = FindStartCode(from, end);
        ASSERT_EQ(found, std::search(from, end, kCode, kCode + 4)) << size << " kind " << kind;
        from = found == end ? end : found + 1;
      } while (from != end);
    }
  }
}

}  // namespace
}  // namespace qx::utils
