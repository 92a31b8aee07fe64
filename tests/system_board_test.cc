// What a build for a real board uses in place of the emulated one.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

#include "board/board_interface.h"
#include "qxtools/emulated_board.h"
#include "tests/testing/temp_path.h"
#include "tests/testing/test.h"

namespace qx::board {
namespace {

TEST(SystemBoard, HasNoEmulatedOne) {
  EXPECT_FALSE(emulated_board::IsEmulated());
  EXPECT_THROW((void)emulated_board::GetStatus(), std::logic_error);
}

// A file stands for "/dev/mem".
TEST(SystemBoard, MapsAndAccessesThePageAtAnAddress) {
  const std::string path = testing::TempPath("memory");
  std::ofstream(path) << std::string(3 * kPageBytes, 'x');
  const int fd = Open(path.c_str(), O_RDWR | O_SYNC);
  ASSERT_GE(fd, 0);
  void* map = Map(kPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, kPageBytes);
  ASSERT_NE(map, MAP_FAILED);
  auto* const words = static_cast<std::uint32_t*>(map);
  StoreRegister(words + 1, 0x64636261);
  EXPECT_EQ(LoadRegister(words + 1), 0x64636261U);
  EXPECT_EQ(LoadRegister(words), 0x78787878U);
  std::uint32_t in_file = 0;
  EXPECT_EQ(pread(fd, &in_file, sizeof(in_file), kPageBytes + 4), 4);
  EXPECT_EQ(in_file, 0x64636261U);
  EXPECT_EQ(Unmap(map, kPageBytes), 0);
  EXPECT_EQ(Close(fd), 0);
  EXPECT_EQ(Close(fd), -1);
  unlink(path.c_str());
}

}  // namespace
}  // namespace qx::board
