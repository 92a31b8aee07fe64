#include "board/board_interface.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "board/emulated/board.h"
#include "board/emulated/hex.h"
#include "board/register_access.h"

namespace qx::board {
namespace {

// Register accesses are frequent and cannot fail: their details are composed only while recording.
void NoteAccess(const char* name, const volatile std::uint32_t* reg, std::uint32_t value) {
  CallLog& log = Board::Get().log();
  if (!log.recording()) return;
  log.Note(name, Hex(reinterpret_cast<std::uintptr_t>(reg) % kPageBytes) + ' ' + Hex(value));
}

std::timespec Half(const std::timespec& time) {
  const std::int64_t ns = (std::int64_t{time.tv_sec} * 1000000000 + time.tv_nsec) / 2;
  std::timespec half{};
  half.tv_sec = static_cast<std::time_t>(ns / 1000000000);
  half.tv_nsec = static_cast<long>(ns % 1000000000);
  return half;
}

}  // namespace

int Open(const char* path, int flags) {
  Board& board = Board::Get();
  if (board.log().Fails("open", std::string(path) + ' ' + std::to_string(flags))) {
    errno = EACCES;
    return -1;
  }
  if (std::strcmp(path, "/dev/mem") != 0) {
    errno = ENOENT;
    return -1;
  }
  return dup(board.memory().fd());
}

void* Map(std::size_t bytes, int protection, int flags, int fd, off_t physical_addr) {
  const auto address = static_cast<std::uint64_t>(physical_addr);
  if (Board::Get().log().Fails("mmap", Hex(address) + ' ' + Hex(bytes))) {
    errno = EPERM;
    return MAP_FAILED;
  }
  if (address >= kPhysicalMemoryBytes || bytes > kPhysicalMemoryBytes - address) {
    errno = EINVAL;
    return MAP_FAILED;
  }
  return mmap(nullptr, bytes, protection, flags, fd, physical_addr);
}

int Unmap(void* map, std::size_t bytes) {
  Board::Get().log().Note("munmap", std::to_string(bytes));
  return munmap(map, bytes);
}

int Close(int fd) {
  Board::Get().log().Note("close", std::to_string(fd));
  return close(fd);
}

int Sleep(const std::timespec* request, std::timespec* remaining) {
  const std::int64_t ns = std::int64_t{request->tv_sec} * 1000000000 + request->tv_nsec;
  if (Board::Get().log().Fails("nanosleep", std::to_string(ns))) {
    *remaining = Half(*request);
    errno = EINTR;
    return -1;
  }
  return nanosleep(request, remaining);
}

std::uint32_t LoadRegister(const volatile std::uint32_t* reg) {
  const std::uint32_t value = LoadWord(reg);
  NoteAccess("load", reg, value);
  return value;
}

void StoreRegister(volatile std::uint32_t* reg, std::uint32_t value) {
  NoteAccess("store", reg, value);
  StoreWord(reg, value);
  if (reinterpret_cast<std::uintptr_t>(reg) % kPageBytes == 0) {
    Board::Get().unit().AfterControlStore();
  }
}

}  // namespace qx::board
