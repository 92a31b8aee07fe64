#include "qxtools/memory_buffer.h"

#include "tests/testing/test.h"

namespace qx::utils {
namespace {

TEST(MemoryBuffer, NothingIsAllocatedOrCopied) {
  const MemoryBuffer buffer = AllocMem(4096, kMemTypeDevice, 3);
  EXPECT_TRUE(buffer.data == nullptr && buffer.size == 0 && buffer.mem_type == kMemTypeDevice);
  const LogCapture log;
  char from[] = "source", to[] = "target";
  MemoryBuffer dst{to, 1, sizeof(to), kMemTypeHost, 0};
  EXPECT_EQ(MemCpy(dst, {from, 2, sizeof(from), kMemTypeHost, 0}), -1002);
  EXPECT_EQ(MemCpy(to, sizeof(to), kMemTypeHost, 0, from, sizeof(from), kMemTypeDevice, 1), -1002);
  EXPECT_STREQ(to, "target");
  EXPECT_THAT(log.Messages(), IsEmpty());
}

}  // namespace
}  // namespace qx::utils
