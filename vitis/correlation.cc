#include "vitis/correlation.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/register_device.h"
#include "qxtools/fpga_correlation.h"

namespace qx {
namespace utils {
namespace image {
namespace {

constexpr std::chrono::milliseconds kDefaultTimeLimit{10000};
std::atomic<std::chrono::milliseconds::rep> g_time_limit_ms{kDefaultTimeLimit.count()};

}  // namespace

KernelTimeout::~KernelTimeout() = default;

void SetKernelTimeLimit(std::chrono::milliseconds limit) { g_time_limit_ms = limit.count(); }

std::chrono::milliseconds KernelTimeLimit() { return std::chrono::milliseconds(g_time_limit_ms); }

namespace correlation {
namespace {

constexpr char kMemoryPath[] = "/dev/mem";
constexpr std::size_t kPageBytes = 4096;
constexpr std::uint32_t kControlOffset = 0x00;
constexpr std::uint32_t kRunning = 1;  // control word: starts a run, and stays until it has ended

// Directions and flags as the device runtime numbers them.
constexpr auto kToDevice = static_cast<xclBOSyncDirection>(0);
constexpr auto kFromDevice = static_cast<xclBOSyncDirection>(1);
constexpr auto kNoFlags = static_cast<xrt::bo::flags>(0);

[[noreturn]] void ThrowRegisterError(int error, const std::string& action) {
  throw std::system_error(error, std::generic_category(),
                          "cannot " + action +
                              " for the correlation kernel's registers (this "
                              "needs the privileges of the superuser)");
}

// The kernel's registers through the mapped page.
class MappedRegisters {
 public:
  explicit MappedRegisters(volatile std::uint32_t* page) : page_(page) {}

  std::uint32_t Load(std::uint32_t offset) const { return platform::LoadRegister(Word(offset)); }
  void Store(std::uint32_t offset, std::uint32_t value) {
    platform::StoreRegister(Word(offset), value);
  }

  void WriteArguments(const xrt::kernel& kernel, const Arguments& arguments) {
    std::array<std::uint32_t, 4> offsets{};
    for (std::size_t i = 0; i < offsets.size(); ++i) {
      offsets[i] = kernel.offset(static_cast<int>(i));
      if (offsets[i] > kPageBytes - sizeof(std::uint32_t)) {
        throw std::out_of_range("the register of kernel argument " + std::to_string(i) +
                                " lies outside the mapped page: offset " +
                                std::to_string(offsets[i]));
      }
    }
    for (std::size_t i = 0; i < offsets.size(); ++i) Store(offsets[i], arguments[i]);
  }

 private:
  volatile std::uint32_t* Word(std::uint32_t offset) const {
    return page_ + offset / sizeof(std::uint32_t);
  }

  volatile std::uint32_t* page_;
};

// The kernel's registers through the device runtime.
class RuntimeRegisters {
 public:
  explicit RuntimeRegisters(xrt::kernel& kernel) : kernel_(kernel) {}

  std::uint32_t Load(std::uint32_t offset) const { return kernel_.read_register(offset); }
  void Store(std::uint32_t offset, std::uint32_t value) { kernel_.write_register(offset, value); }

  void WriteArguments(const xrt::kernel& kernel, const Arguments& arguments) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      Store(kernel.offset(static_cast<int>(i)), arguments[i]);
    }
  }

 private:
  xrt::kernel& kernel_;
};

void SleepFor(std::chrono::nanoseconds interval) {
  std::timespec request{};
  request.tv_nsec = static_cast<long>(interval.count());  // always below a second
  std::timespec remaining{};
  while (platform::Sleep(&request, &remaining) != 0 && errno == EINTR) request = remaining;
}

template <typename Registers>
void Run(Registers registers, const xrt::kernel& kernel, const Arguments& arguments,
         std::chrono::nanoseconds interval) {
  // Its end would be taken for the end of this run.
  if (registers.Load(kControlOffset) == kRunning) {
    throw KernelTimeout("the correlation kernel is still busy with an earlier run");
  }
  registers.WriteArguments(kernel, arguments);
  registers.Store(kControlOffset, kRunning);
  const auto limit = KernelTimeLimit();
  const auto start = std::chrono::steady_clock::now();
  while (registers.Load(kControlOffset) == kRunning) {
    if (std::chrono::steady_clock::now() - start >= limit) {
      throw KernelTimeout("the correlation kernel did not end within " +
                          std::to_string(limit.count()) + " ms");
    }
    SleepFor(interval);
  }
}

}  // namespace

void RequireSizes(std::int32_t input_size, std::int32_t output_size) {
  if (input_size > 0 && output_size > 0) return;
  throw std::invalid_argument("the correlation kernel's buffers need positive sizes: input " +
                              std::to_string(input_size) + ", output " +
                              std::to_string(output_size) + " bytes");
}

float ScaleExponent(const velkar::vision::ImageFrame& left, const velkar::vision::ImageFrame& right,
                    const velkar::vision::ImageFrame& output) {
  return std::log2(1.0F / (right.scale * left.scale * output.scale));
}

std::uint32_t ToUnsigned(float exponent) {
  if (!(exponent > 0.0F)) return 0;  // not a number, too
  if (exponent >= 4294967296.0F) return std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(exponent);
}

std::int32_t ToSigned(float exponent) {
  if (std::isnan(exponent)) return 0;
  if (exponent >= 2147483648.0F) return std::numeric_limits<std::int32_t>::max();
  if (exponent <= -2147483648.0F) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(exponent);
}

std::shared_ptr<xrt::kernel> OpenKernel(const xrt::device& device, const xrt::uuid& container,
                                        const std::string& unit, Access access) {
  return std::make_shared<xrt::kernel>(device, container, unit,
                                       static_cast<xrt::kernel::cu_access_mode>(access));
}

std::shared_ptr<xrt::bo> CreateBuffer(const xrt::device& device, const xrt::kernel& kernel,
                                      int argument, std::int32_t bytes) {
  const auto group = static_cast<unsigned int>(kernel.group_id(argument));
  return std::make_shared<xrt::bo>(static_cast<void*>(device), static_cast<unsigned long>(bytes),
                                   kNoFlags, group);
}

std::uint32_t LowAddress(const xrt::bo& buffer) {
  return static_cast<std::uint32_t>(buffer.address());
}

void SendInputs(xrt::bo& left, xrt::bo& right, const std::uint8_t* left_data,
                const std::uint8_t* right_data) {
  left.write(left_data, left.size(), 0);
  right.write(right_data, right.size(), 0);
  left.sync(kToDevice, left.size(), 0);
  right.sync(kToDevice, right.size(), 0);
}

void ReceiveOutput(xrt::bo& output, const velkar::vision::ImageFrame& frame) {
  output.sync(kFromDevice, output.size(), 0);
  output.read(frame.Data(), output.size(), 0);
}

RegisterDevice::RegisterDevice() : fd_(platform::Open(kMemoryPath, O_RDWR | O_SYNC)) {
  if (fd_ < 0) ThrowRegisterError(errno, std::string("open ") + kMemoryPath);
}

RegisterDevice::~RegisterDevice() {
  if (fd_ >= 0) platform::Close(fd_);
}

int RegisterDevice::Release() { return std::exchange(fd_, -1); }

void CloseRegisterDevice(int fd) { platform::Close(fd); }

volatile std::uint32_t* MapRegisters(int fd, std::uint64_t address) {
  const std::uint64_t page = address & ~std::uint64_t{kPageBytes - 1};
  void* map =
      platform::Map(kPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(page));
  if (map == MAP_FAILED) ThrowRegisterError(errno, std::string("map ") + kMemoryPath);
  return static_cast<volatile std::uint32_t*>(map);
}

void UnmapRegisters(volatile std::uint32_t* registers) {
  platform::Unmap(const_cast<std::uint32_t*>(registers), kPageBytes);
}

void RunMapped(const xrt::kernel& kernel, volatile std::uint32_t* registers,
               const Arguments& arguments, std::chrono::nanoseconds interval) {
  Run(MappedRegisters(registers), kernel, arguments, interval);
}

void RunThroughRuntime(xrt::kernel& kernel, const Arguments& arguments,
                       std::chrono::nanoseconds interval) {
  Run(RuntimeRegisters(kernel), kernel, arguments, interval);
}

double MillisecondsSince(SystemTime start) {
  const std::chrono::nanoseconds time = std::chrono::system_clock::now() - start;
  return static_cast<double>(time.count()) / 1e9 * 1000.0;
}

}  // namespace correlation
}  // namespace image
}  // namespace utils
}  // namespace qx
