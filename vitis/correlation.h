// The bring-up and the run protocol of the correlation kernel, shared by the three ways of running
// it (kernel_fpga.cc, cost_volume_fpga.cc).
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "qxtools/image_frame.h"
#include "xrt/xrt_bo.h"
#include "xrt/xrt_device.h"
#include "xrt/xrt_kernel.h"

namespace qx {
namespace utils {
namespace image {
namespace correlation {

using SystemTime = std::chrono::system_clock::time_point;

constexpr char kDefaultContainer[] = "/lib/firmware/xilinx/k26brannoc/k26brannoc.xclbin";
constexpr char kDefaultUnit[] = "Corr:{Corr_1}";

// Access modes of a kernel handle, as the device runtime numbers them.
enum class Access { kExclusive = 0, kShared = 1 };

// Throws std::invalid_argument unless both buffer sizes, in bytes, are positive.
void RequireSizes(std::int32_t input_size, std::int32_t output_size);

// log2 of one over the product of the scales; the conversions truncate towards zero, saturate, and
// turn what is not a number into 0, as the board's processor does.
float ScaleExponent(const velkar::vision::ImageFrame& left, const velkar::vision::ImageFrame& right,
                    const velkar::vision::ImageFrame& output);
std::uint32_t ToUnsigned(float exponent);
std::int32_t ToSigned(float exponent);

std::shared_ptr<xrt::kernel> OpenKernel(const xrt::device& device, const xrt::uuid& container,
                                        const std::string& unit, Access access);

// A device buffer in the memory group of a kernel argument.
std::shared_ptr<xrt::bo> CreateBuffer(const xrt::device& device, const xrt::kernel& kernel,
                                      int argument, std::int32_t bytes);

std::uint32_t LowAddress(const xrt::bo& buffer);

// Copies both inputs into their buffers, then synchronises both to the device.
void SendInputs(xrt::bo& left, xrt::bo& right, const std::uint8_t* left_data,
                const std::uint8_t* right_data);
// Synchronises the output from the device and copies it to the frame.
void ReceiveOutput(xrt::bo& output, const velkar::vision::ImageFrame& frame);

// "/dev/mem", open. Throws std::system_error.
class RegisterDevice {
 public:
  RegisterDevice();
  ~RegisterDevice();
  RegisterDevice(const RegisterDevice&) = delete;
  RegisterDevice& operator=(const RegisterDevice&) = delete;

  int fd() const { return fd_; }
  int Release();  // the caller closes it with CloseRegisterDevice()

 private:
  int fd_;
};
void CloseRegisterDevice(int fd);

// Maps the register page that holds physical address `address`. Throws std::system_error.
volatile std::uint32_t* MapRegisters(int fd, std::uint64_t address);
void UnmapRegisters(volatile std::uint32_t* registers);

// Left, right and output address and the scale exponent.
using Arguments = std::array<std::uint32_t, 4>;

// Writes the arguments, starts the kernel and waits for its end, looking every `interval`.
// Throws KernelTimeout.
void RunMapped(const xrt::kernel& kernel, volatile std::uint32_t* registers,
               const Arguments& arguments, std::chrono::nanoseconds interval);
void RunThroughRuntime(xrt::kernel& kernel, const Arguments& arguments,
                       std::chrono::nanoseconds interval);

double MillisecondsSince(SystemTime start);

}  // namespace correlation
}  // namespace image
}  // namespace utils
}  // namespace qx
