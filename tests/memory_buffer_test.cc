#include "qxtools/memory_buffer.h"

#include "tests/testing/test.h"

namespace qx {
namespace utils {
namespace {

TEST(MemoryBuffer, AllocMemGivesAnEmptyBufferOfTheRequestedKind) {
  for (const MemType type : {kMemTypeHost, kMemTypeDevice, static_cast<MemType>(77)}) {
    const MemoryBuffer buffer = AllocMem(4096, type, 3);
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.reserved, 0U);
    EXPECT_EQ(buffer.size, 0U);
    EXPECT_EQ(buffer.mem_type, type);
    EXPECT_EQ(buffer.device, 0);
  }
}

TEST(MemoryBuffer, NoCopyIsPossibleAndNoByteChanges) {
  const LogCapture log;
  char from[] = "source", to[] = "target";
  MemoryBuffer dst{to, 1, sizeof(to), kMemTypeHost, 0};
  const MemoryBuffer src{from, 2, sizeof(from), kMemTypeHost, 0};
  EXPECT_EQ(MemCpy(dst, src), -1002);
  EXPECT_EQ(MemCpy(to, sizeof(to), kMemTypeHost, 0, from, sizeof(from), kMemTypeDevice, 1), -1002);
  EXPECT_EQ(MemCpy(nullptr, 8, kMemTypeDevice, -1, nullptr, 8, kMemTypeHost, 0), -1002);
  EXPECT_STREQ(from, "source");
  EXPECT_STREQ(to, "target");
  EXPECT_THAT(log.Messages(), IsEmpty());
}

}  // namespace
}  // namespace utils
}  // namespace qx
