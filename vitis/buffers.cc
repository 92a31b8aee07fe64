#include "vitis/buffers.h"

#include <glog/logging.h>

#include <exception>
#include <stdexcept>
#include <string>

#include "qxtools/fpga_correlation.h"

namespace qx::utils::image::correlation {
namespace {

// Directions and flags as the device runtime numbers them.
constexpr auto kToDevice = static_cast<xclBOSyncDirection>(0);
constexpr auto kFromDevice = static_cast<xclBOSyncDirection>(1);
constexpr auto kNoFlags = static_cast<xrt::bo::flags>(0);

std::shared_ptr<xrt::bo> CreateBuffer(xrt::device& device, xrt::kernel& kernel, int argument,
                                      std::int32_t bytes) {
  const auto group = static_cast<unsigned int>(kernel.group_id(argument));
  return std::make_shared<xrt::bo>(static_cast<void*>(device), static_cast<unsigned long>(bytes),
                                   kNoFlags, group);
}

// The buffers of a run that was given up. Never destroyed: at the end of the process the kernel may
// still use them. Made by RequireIdle(), before each run. No lock: runs do not overlap.
Buffers& KeptBuffers() {
  static Buffers& kept = *new Buffers;
  return kept;
}

void Keep(const Buffers& buffers) {
  KeptBuffers() = buffers;  // first: it needs no memory, which the log line may not get
  const std::size_t bytes = buffers.left->size() + buffers.right->size() + buffers.output->size();
  LOG(ERROR) << "the correlation kernel still runs: its buffers, " << bytes
             << " bytes, are kept until the next run finds it idle";
}

// Whether the kernel runs, or at least cannot be seen not to.
bool MayRun(Registers& registers) {
  try {
    return IsRunning(registers);
  } catch (const std::exception&) {
    return true;
  }
}

}  // namespace

void RequireSizes(std::int32_t input_size, std::int32_t output_size) {
  if (input_size > 0 && output_size > 0) return;
  throw std::invalid_argument("the correlation kernel's buffers need positive sizes: input " +
                              std::to_string(input_size) + ", output " +
                              std::to_string(output_size) + " bytes");
}

Buffers CreateBuffers(xrt::device& device, xrt::kernel& kernel, std::int32_t input_size,
                      std::int32_t output_size) {
  Buffers buffers;
  buffers.left = CreateBuffer(device, kernel, 0, input_size);
  buffers.right = CreateBuffer(device, kernel, 1, input_size);
  buffers.output = CreateBuffer(device, kernel, 2, output_size);
  return buffers;
}

std::array<std::uint32_t, 3> LowAddresses(const Buffers& buffers) {
  std::array<std::uint32_t, 3> low{};
  low[0] = static_cast<std::uint32_t>(buffers.left->address());
  low[1] = static_cast<std::uint32_t>(buffers.right->address());
  low[2] = static_cast<std::uint32_t>(buffers.output->address());
  return low;
}

void SendInputs(const Buffers& buffers, const velkar::vision::ImageFrame& input_l,
                const velkar::vision::ImageFrame& input_r) {
  const std::uint8_t* const left = input_l.Data();
  const std::uint8_t* const right = input_r.Data();
  buffers.left->write(left, buffers.left->size(), 0);
  buffers.right->write(right, buffers.right->size(), 0);
  buffers.left->sync(kToDevice, buffers.left->size(), 0);
  buffers.right->sync(kToDevice, buffers.right->size(), 0);
  VLOG(1) << "CORR_FPGA Execution Start";
}

void ReceiveOutput(const Buffers& buffers, const velkar::vision::ImageFrame& output) {
  buffers.output->sync(kFromDevice, buffers.output->size(), 0);
  buffers.output->read(output.Data(), buffers.output->size(), 0);
}

void RequireIdle(Registers& registers) {
  if (IsRunning(registers)) {
    throw KernelTimeout("the correlation kernel is still busy with an earlier run");
  }
  KeptBuffers() = {};
}

void Run(Registers& registers, const Buffers& buffers, const Arguments& arguments,
         std::chrono::nanoseconds interval) {
  registers.StoreArguments(arguments);
  try {
    StartAndWait(registers, interval);
  } catch (...) {
    if (MayRun(registers)) Keep(buffers);
    throw;
  }
}

}  // namespace qx::utils::image::correlation
