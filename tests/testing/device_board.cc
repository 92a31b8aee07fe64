#include "tests/testing/device_board.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include "tests/testing/device_runtime.h"

using qx::testing::DeviceBoard;

DeviceBoard& DeviceBoard::Get() {
  static DeviceBoard& board = *new DeviceBoard;
  return board;
}

std::uint32_t DeviceBoard::NextWord() {
  const std::uint32_t word = words.front();
  if (words.size() > 1) words.erase(words.begin());
  return word;
}

namespace {

DeviceBoard& Board() { return DeviceBoard::Get(); }

const char* Role(unsigned group) {
  return group == 5 ? "left" : group == 6 ? "right" : group == 7 ? "output" : "lost";
}

}  // namespace

namespace xrt {

device::device(unsigned index) { Board().Call("device ", index); }
device::~device() { Board().Add("~device"); }
uuid device::load_xclbin(const std::string& path) {
  Board().Call("load_xclbin ", path);
  return {};
}
device::operator void*() { return this; }

kernel::kernel(const device&, const uuid&, const std::string& name, cu_access_mode mode) {
  Board().Call("kernel ", name, " mode ", static_cast<int>(mode));
}
kernel::~kernel() { Board().Add("~kernel"); }
int kernel::group_id(int argument) {
  Board().Call("group_id ", argument);
  return 5 + argument;
}
unsigned kernel::offset(int argument) {
  Board().Call("offset ", argument);
  return argument == 3 ? Board().last_offset : 0x40U + 12U * static_cast<unsigned>(argument);
}
void kernel::write_register(unsigned offset, unsigned value) {
  Board().Call("write_register ", offset, ' ', value);
}
unsigned kernel::read_register(unsigned offset) {
  const unsigned word = Board().NextWord();
  Board().Call("read_register ", offset, ' ', word);
  return word;
}

bo::bo(void* /*device*/, unsigned long bytes, flags kind, unsigned group)
    : bytes_(bytes), group_(group) {
  Board().Call("bo ", Role(group), ' ', bytes, " flags ", static_cast<int>(kind));
}
bo::~bo() { Board().Add("~bo ", Role(group_)); }
std::size_t bo::size() { return bytes_.size(); }
std::uint64_t bo::address() {
  Board().Call("address ", Role(group_));
  return 0x500000000 + group_ * 0x1000;
}
void bo::write(const void* source, std::size_t bytes, std::size_t offset) {
  Board().Call("write ", Role(group_), ' ', bytes, " at ", offset);
  std::memcpy(bytes_.data() + offset, source, bytes);
}
void bo::read(void* destination, std::size_t bytes, std::size_t offset) {
  Board().Call("read ", Role(group_), ' ', bytes, " at ", offset);
  std::memcpy(destination, bytes_.data() + offset, bytes);
}
void bo::sync(xclBOSyncDirection direction, std::size_t bytes, std::size_t offset) {
  Board().Call("sync ", static_cast<int>(direction), ' ', Role(group_), ' ', bytes, " at ", offset);
}

}  // namespace xrt

namespace xir {

XrtDeviceHandle::~XrtDeviceHandle() { Board().Add("~handle"); }
std::shared_ptr<XrtDeviceHandle> XrtDeviceHandle::get_instance() {
  Board().Call("get_instance");
  return std::make_shared<XrtDeviceHandle>();
}
std::uint64_t XrtDeviceHandle::address_of(std::string kernel, std::size_t core) {
  Board().Call("address_of ", kernel, ' ', core);
  return 0x8A0010ABC;
}

}  // namespace xir

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
  if (fails) errno = Board().error;
  return fails ? -1 : kRegisterDevice;
}
QX_WRAP(void*, Map, "mmap", (void* at, size_t bytes, int access, int flags, int fd, off_t from)) {
  if (fd != kRegisterDevice) return RealMap(at, bytes, access, flags, fd, from);
  const bool right = access == (PROT_READ | PROT_WRITE) && flags == MAP_SHARED;
  const bool fails = Board().CallFails("mmap ", bytes, ' ', from, right ? "" : " wrongly");
  if (fails) errno = Board().error;
  return fails ? MAP_FAILED : Board().page;
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
QX_WRAP(std::uint32_t, Load, "_ZN2qx8platform12LoadRegisterEPVKj",
        (const volatile std::uint32_t* reg)) {
  if (reg == Board().page) Board().page[0] = Board().NextWord();
  const std::uint32_t value = RealLoad(reg);
  Board().Add("load ", (reg - Board().page) * 4, ' ', value);
  return value;
}
QX_WRAP(void, Store, "_ZN2qx8platform13StoreRegisterEPVjj",
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
