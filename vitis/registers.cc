#include "vitis/registers.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "board/register_device.h"
#include "qxtools/fpga_correlation.h"

namespace qx::utils::image {
namespace {

constexpr std::chrono::milliseconds kDefaultTimeLimit{10000};
std::atomic<std::chrono::milliseconds::rep> g_time_limit_ms{kDefaultTimeLimit.count()};

}  // namespace

KernelTimeout::~KernelTimeout() = default;

void SetKernelTimeLimit(std::chrono::milliseconds limit) { g_time_limit_ms = limit.count(); }

std::chrono::milliseconds KernelTimeLimit() { return std::chrono::milliseconds(g_time_limit_ms); }

}  // namespace qx::utils::image

namespace qx::utils::image::correlation {
namespace {

constexpr char kMemoryPath[] = "/dev/mem";
constexpr std::size_t kPageBytes = 4096;
constexpr std::uint32_t kControlOffset = 0x00;
constexpr std::uint32_t kRunning = 1;  // control word: starts a run, and stays until it has ended

[[noreturn]] void ThrowRegisterError(int error, const std::string& action) {
  const bool refused = error == EACCES || error == EPERM;
  throw std::system_error(error, std::generic_category(),
                          "cannot " + action + ' ' + kMemoryPath +
                              " for the correlation kernel's registers" +
                              (refused ? " (this needs the privileges of the superuser)" : ""));
}

void RequireWordOfPage(std::uint32_t offset, std::size_t argument) {
  if (offset % sizeof(std::uint32_t) == 0 && offset < kPageBytes) return;
  throw std::out_of_range("the register of kernel argument " + std::to_string(argument) +
                          " is no word of the mapped page: offset " + std::to_string(offset));
}

void SleepFor(std::chrono::nanoseconds interval) {
  std::timespec request{};
  request.tv_nsec = static_cast<long>(interval.count());  // always below a second
  std::timespec remaining{};
  while (board::Sleep(&request, &remaining) != 0 && errno == EINTR) request = remaining;
}

}  // namespace

RegisterDevice::RegisterDevice() : fd_(board::Open(kMemoryPath, O_RDWR | O_SYNC)) {
  if (fd_ < 0) ThrowRegisterError(errno, "open");
}

RegisterDevice::~RegisterDevice() {
  if (fd_ >= 0) board::Close(fd_);
}

int RegisterDevice::Release() { return std::exchange(fd_, -1); }

void CloseRegisterDevice(int fd) { board::Close(fd); }

volatile std::uint32_t* MapRegisters(int fd, std::uint64_t address) {
  const std::uint64_t page = address & ~std::uint64_t{kPageBytes - 1};
  void* map =
      board::Map(kPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(page));
  if (map == MAP_FAILED) ThrowRegisterError(errno, "map");
  return static_cast<volatile std::uint32_t*>(map);
}

void UnmapRegisters(volatile std::uint32_t* page) {
  board::Unmap(const_cast<std::uint32_t*>(page), kPageBytes);
}

volatile std::uint32_t* MappedRegisters::Word(std::uint32_t offset) const {
  return page_ + offset / sizeof(std::uint32_t);
}

std::uint32_t MappedRegisters::Load(std::uint32_t offset) {
  return board::LoadRegister(Word(offset));
}

void MappedRegisters::Store(std::uint32_t offset, std::uint32_t value) {
  board::StoreRegister(Word(offset), value);
}

void MappedRegisters::StoreArguments(const Arguments& arguments) {
  std::array<std::uint32_t, 4> offsets{};
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    offsets[i] = kernel_.offset(static_cast<int>(i));
    RequireWordOfPage(offsets[i], i);
  }
  for (std::size_t i = 0; i < offsets.size(); ++i) Store(offsets[i], arguments[i]);
}

std::uint32_t RuntimeRegisters::Load(std::uint32_t offset) { return kernel_.read_register(offset); }

void RuntimeRegisters::Store(std::uint32_t offset, std::uint32_t value) {
  kernel_.write_register(offset, value);
}

void RuntimeRegisters::StoreArguments(const Arguments& arguments) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    Store(kernel_.offset(static_cast<int>(i)), arguments[i]);
  }
}

bool IsRunning(Registers& registers) { return registers.Load(kControlOffset) == kRunning; }

void StartAndWait(Registers& registers, std::chrono::nanoseconds interval) {
  using Clock = std::chrono::steady_clock;
  registers.Store(kControlOffset, kRunning);
  const std::chrono::milliseconds limit = KernelTimeLimit();
  const Clock::time_point start = Clock::now();
  while (true) {
    // Compared in the limit's unit, where no limit overflows. The time is taken before the look: a
    // process that was stopped for longer than the limit looks once more before it gives up.
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    if (!IsRunning(registers)) return;
    if (waited >= limit) {
      throw KernelTimeout("the correlation kernel did not end within " +
                          std::to_string(limit.count()) + " ms");
    }
    SleepFor(interval);
  }
}

}  // namespace qx::utils::image::correlation
