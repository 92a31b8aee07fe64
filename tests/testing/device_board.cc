#include "tests/testing/device_board.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>

using qx::testing::DeviceBoard;

namespace {

DeviceBoard& Board() { return DeviceBoard::Get(); }

// For a call that may fail: `result`, or `failure` with errno as told.
template <typename Result>
Result Answer(bool fails, Result failure, Result result) {
  if (fails) errno = Board().error;
  return fails ? failure : result;
}

}  // namespace

// The linker sends this program's calls here (-Wl,--wrap).
#define QX_WRAP(result, name, symbol, parameters)     \
  result Real##name parameters asm("__real_" symbol); \
  result Wrap##name parameters asm("__wrap_" symbol); \
  result Wrap##name parameters

constexpr int kRegisterDevice = 7777;  // its descriptor

QX_WRAP(int, Open, "open", (const char* path, int flags, ...)) {
  std::va_list more;
  va_start(more, flags);
  const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(more, unsigned) : 0;
  va_end(more);
  if (std::strcmp(path, "/dev/mem") != 0) return RealOpen(path, flags, mode);
  const bool fails = Board().CallFails("open ", path, flags == (O_RDWR | O_SYNC) ? "" : " wrongly");
  return Answer(fails, -1, kRegisterDevice);
}
QX_WRAP(void*, Map, "mmap", (void* at, size_t bytes, int access, int flags, int fd, off_t from)) {
  if (fd != kRegisterDevice) return RealMap(at, bytes, access, flags, fd, from);
  const bool right = access == (PROT_READ | PROT_WRITE) && flags == MAP_SHARED;
  const bool fails = Board().CallFails("mmap ", bytes, ' ', from, right ? "" : " wrongly");
  return Answer<void*>(fails, MAP_FAILED, Board().page);
}
QX_WRAP(int, Unmap, "munmap", (void* map, size_t bytes)) {
  if (map != Board().page) return RealUnmap(map, bytes);
  Board().Add("munmap ", bytes);
  return 0;
}
QX_WRAP(int, Close, "close", (int fd)) {
  if (fd != kRegisterDevice) return RealClose(fd);
  Board().Add("close");
  return 0;
}
QX_WRAP(int, Sleep, "nanosleep", (const std::timespec* request, std::timespec* remaining)) {
  Board().Add("sleep ", std::dec, request->tv_nsec);
  const bool interrupted = Board().interrupted != 0 && --Board().interrupted == 0;
  const long slept = interrupted ? request->tv_nsec / 2 : request->tv_nsec;
  Board().time += std::chrono::nanoseconds(slept);
  remaining->tv_nsec = request->tv_nsec - slept;
  errno = EINTR;
  return interrupted ? -1 : 0;
}
QX_WRAP(std::uint32_t, Load, "_ZN2qx5board12LoadRegisterEPVKj",
        (const volatile std::uint32_t* reg)) {
  if (reg == Board().page) Board().page[0] = Board().NextWord();
  const std::uint32_t value = RealLoad(reg);
  Board().Add("load ", (reg - Board().page) * 4, ' ', value);
  return value;
}
QX_WRAP(void, Store, "_ZN2qx5board13StoreRegisterEPVjj",
        (volatile std::uint32_t * reg, std::uint32_t value)) {
  RealStore(reg, value);
  Board().Add("store ", (reg - Board().page) * 4, ' ', Board().page[reg - Board().page]);
}
QX_WRAP(std::chrono::system_clock::time_point, SystemNow, "_ZNSt6chrono3_V212system_clock3nowEv",
        (void)) {
  return std::chrono::system_clock::time_point(Board().time);
}
QX_WRAP(std::chrono::steady_clock::time_point, SteadyNow, "_ZNSt6chrono3_V212steady_clock3nowEv",
        (void)) {
  return std::chrono::steady_clock::time_point(Board().time);
}
