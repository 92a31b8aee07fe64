#include "board/board_interface.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "board/register_access.h"

namespace qx::board {

int Open(const char* path, int flags) { return open(path, flags); }

void* Map(std::size_t bytes, int protection, int flags, int fd, off_t physical_addr) {
  return mmap(nullptr, bytes, protection, flags, fd, physical_addr);
}

int Unmap(void* map, std::size_t bytes) { return munmap(map, bytes); }

int Close(int fd) { return close(fd); }

int Sleep(const std::timespec* request, std::timespec* remaining) {
  return nanosleep(request, remaining);
}

std::uint32_t LoadRegister(const volatile std::uint32_t* reg) { return LoadWord(reg); }

void StoreRegister(volatile std::uint32_t* reg, std::uint32_t value) { StoreWord(reg, value); }

}  // namespace qx::board
