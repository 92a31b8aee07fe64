#include "tests/testing/device_board.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "platform/register_device.h"
#include "tests/testing/device_runtime.h"

using qx::testing::DeviceBoard;

namespace qx {
namespace testing {

DeviceBoard& DeviceBoard::Get() {
  static DeviceBoard& board = *new DeviceBoard;
  return board;
}

bool DeviceBoard::CallFails(const std::string& line) {
  Add(line);
  time += std::chrono::milliseconds(1);
  return !failing.empty() && line.compare(0, failing.size(), failing) == 0;
}

void DeviceBoard::Call(const std::string& line) {
  if (CallFails(line)) throw std::runtime_error(line);
}

std::uint32_t DeviceBoard::NextWord() {
  const std::uint32_t word = words.front();
  if (words.size() > 1) words.erase(words.begin());
  return word;
}

void TracedLog::send(google::LogSeverity severity, const char* /*full_filename*/,
                     const char* /*base_filename*/, int /*line*/, const struct ::tm* /*tm_time*/,
                     const char* message, std::size_t message_len) {
  const std::string kind = severity == google::INFO ? "log: " : "error: ";
  DeviceBoard::Get().Add(kind + std::string(message, message_len) + '|');
}

}  // namespace testing
}  // namespace qx

namespace {

constexpr int kFd = 7777;  // of the register device

void Call(const std::string& line) { DeviceBoard::Get().Call(line); }

std::string Hex(std::uint64_t value) {
  char text[20];
  std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

std::string Role(unsigned int group) {
  return group == 5 ? "left" : group == 6 ? "right" : group == 7 ? "output" : "lost";
}

}  // namespace

namespace xrt {

device::device(unsigned int index) { Call("device " + std::to_string(index)); }
device::~device() { DeviceBoard::Get().Add("~device"); }
uuid device::load_xclbin(const std::string& path) {
  Call("load_xclbin " + path);
  return {};
}
device::operator void*() { return this; }

kernel::kernel(const device& /*board*/, const uuid& /*container*/, const std::string& name,
               cu_access_mode mode) {
  Call("kernel " + name + " mode " + std::to_string(static_cast<int>(mode)));
}
kernel::~kernel() { DeviceBoard::Get().Add("~kernel"); }
int kernel::group_id(int argument) {
  Call("group_id " + std::to_string(argument));
  return 5 + argument;
}
unsigned int kernel::offset(int argument) {
  Call("offset " + std::to_string(argument));
  return argument == 3 ? DeviceBoard::Get().last_offset
                       : 0x40U + 12U * static_cast<unsigned int>(argument);
}
void kernel::write_register(unsigned int offset, unsigned int value) {
  Call("write_register " + Hex(offset) + ' ' + Hex(value));
}
unsigned int kernel::read_register(unsigned int offset) {
  const unsigned int word = DeviceBoard::Get().NextWord();
  Call("read_register " + Hex(offset) + ' ' + Hex(word));
  return word;
}

bo::bo(void* /*device*/, unsigned long bytes, flags kind, unsigned int group)
    : bytes_(new std::uint8_t[bytes]()), size_(bytes), group_(group) {
  Call("bo " + Role(group) + ' ' + std::to_string(bytes) + " flags " +
       std::to_string(static_cast<int>(kind)));
}
bo::~bo() { DeviceBoard::Get().Add("~bo " + Role(group_)); }
std::size_t bo::size() { return size_; }
std::uint64_t bo::address() {
  Call("address " + Role(group_));
  return 0x500000000 + group_ * 0x1000;
}
void bo::write(const void* source, std::size_t bytes, std::size_t offset) {
  Call("write " + Role(group_) + ' ' + std::to_string(bytes) + " at " + std::to_string(offset));
  std::memcpy(bytes_.get() + offset, source, bytes);
}
void bo::read(void* destination, std::size_t bytes, std::size_t offset) {
  Call("read " + Role(group_) + ' ' + std::to_string(bytes) + " at " + std::to_string(offset));
  std::memcpy(destination, bytes_.get() + offset, bytes);
}
void bo::sync(xclBOSyncDirection direction, std::size_t bytes, std::size_t offset) {
  Call("sync " + Role(group_) + " direction " + std::to_string(static_cast<int>(direction)) + ' ' +
       std::to_string(bytes) + " at " + std::to_string(offset));
}

}  // namespace xrt

namespace xir {

XrtDeviceHandle::~XrtDeviceHandle() { DeviceBoard::Get().Add("~handle"); }
std::shared_ptr<XrtDeviceHandle> XrtDeviceHandle::get_instance() {
  Call("get_instance");
  return std::make_shared<XrtDeviceHandle>();
}
std::uint64_t XrtDeviceHandle::address_of(std::string kernel, std::size_t core) {
  Call("address_of " + kernel + ' ' + std::to_string(core));
  return 0x8A0010ABC;
}

}  // namespace xir

// The linker sends this program's calls here (-Wl,--wrap).
// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's.
#define QX_WRAP(result, name, symbol, ...)              \
  result Real##name(__VA_ARGS__) asm("__real_" symbol); \
  result Wrap##name(__VA_ARGS__) asm("__wrap_" symbol); \
  result Wrap##name

namespace {
bool IsRegisterDevice(int fd) { return fd == kFd; }
}  // namespace

QX_WRAP(int, Open, "open", const char* path, int flags, ...)(const char* path, int flags, ...) {
  std::va_list more;
  va_start(more, flags);
  const auto mode = (flags & O_CREAT) != 0 ? va_arg(more, unsigned) : 0U;
  va_end(more);
  if (std::strcmp(path, "/dev/mem") != 0) return RealOpen(path, flags, mode);
  const bool expected = flags == (O_RDWR | O_SYNC);
  if (DeviceBoard::Get().CallFails(std::string("open ") + path + (expected ? "" : " wrongly"))) {
    errno = DeviceBoard::Get().error;
    return -1;
  }
  return kFd;
}
QX_WRAP(void*, Map, "mmap", void* at, size_t bytes, int protection, int flags, int fd, off_t from)
(void* at, size_t bytes, int protection, int flags, int fd, off_t from) {
  if (!IsRegisterDevice(fd)) return RealMap(at, bytes, protection, flags, fd, from);
  const bool expected = protection == (PROT_READ | PROT_WRITE) && flags == MAP_SHARED;
  if (DeviceBoard::Get().CallFails("mmap " + std::to_string(bytes) + " at " +
                                   Hex(static_cast<std::uint64_t>(from)) +
                                   (expected ? "" : " wrongly"))) {
    errno = DeviceBoard::Get().error;
    return MAP_FAILED;
  }
  return DeviceBoard::Get().page;
}
QX_WRAP(int, Unmap, "munmap", void* map, size_t bytes)(void* map, size_t bytes) {
  if (map != DeviceBoard::Get().page) return RealUnmap(map, bytes);
  DeviceBoard::Get().Add("munmap " + std::to_string(bytes));
  return 0;
}
QX_WRAP(int, Close, "close", int fd)(int fd) {
  if (!IsRegisterDevice(fd)) return RealClose(fd);
  DeviceBoard::Get().Add("close");
  return 0;
}
QX_WRAP(int, Sleep, "nanosleep", const std::timespec* request, std::timespec* remaining)
(const std::timespec* request, std::timespec* remaining) {
  DeviceBoard& board = DeviceBoard::Get();
  board.Add("sleep " + std::to_string(request->tv_nsec));
  const bool interrupted = ++board.sleeps == board.interrupted;
  const long slept = interrupted ? request->tv_nsec / 2 : request->tv_nsec;
  board.time += std::chrono::nanoseconds(slept);
  remaining->tv_nsec = request->tv_nsec - slept;
  if (interrupted) errno = EINTR;
  return interrupted ? -1 : 0;
}
QX_WRAP(std::uint32_t, Load, "_ZN2qx8platform12LoadRegisterEPVKj",
        const volatile std::uint32_t* reg)
(const volatile std::uint32_t* reg) {
  DeviceBoard& board = DeviceBoard::Get();
  if (reg == board.page) board.page[0] = board.NextWord();
  const std::uint32_t value = RealLoad(reg);
  board.Add("load " + Hex(static_cast<std::uint64_t>(reg - board.page) * 4) + ' ' + Hex(value));
  return value;
}
QX_WRAP(void, Store, "_ZN2qx8platform13StoreRegisterEPVjj", volatile std::uint32_t* reg,
        std::uint32_t value)
(volatile std::uint32_t* reg, std::uint32_t value) {
  DeviceBoard& board = DeviceBoard::Get();
  RealStore(reg, value);
  board.Add("store " + Hex(static_cast<std::uint64_t>(reg - board.page) * 4) + ' ' + Hex(*reg));
}
QX_WRAP(std::chrono::system_clock::time_point, SystemNow, "_ZNSt6chrono3_V212system_clock3nowEv",
        void)
(void) { return std::chrono::system_clock::time_point(DeviceBoard::Get().time); }
QX_WRAP(std::chrono::steady_clock::time_point, SteadyNow, "_ZNSt6chrono3_V212steady_clock3nowEv",
        void)
(void) { return std::chrono::steady_clock::time_point(DeviceBoard::Get().time); }
// NOLINTEND(bugprone-reserved-identifier)
