#include <glog/logging.h>

#include <cstdlib>
#include <utility>

#include "board/register_device.h"
#include "qxtools/fpga_correlation.h"
#include "vitis/buffers.h"
#include "vitis/correlation.h"
#include "vitis/registers.h"

namespace qx::utils::image {
namespace {

using velkar::vision::ImageFrame;

constexpr std::chrono::microseconds kPollInterval{100};
// The kernel whose base address the device handle is asked for, whatever unit is bound.
constexpr char kKernelName[] = "Corr";

std::string VariableOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : fallback;
}

std::string ContainerPath() { return VariableOr("xclbin_path", correlation::kDefaultContainer); }
std::string UnitName() { return VariableOr("cu_name", correlation::kDefaultUnit); }

std::shared_ptr<xrt::kernel> BuildKernel(xrt::device& device, const std::string& xclbin_path,
                                         const std::string& cu_name) {
  const xrt::uuid container = correlation::LoadContainer(device, xclbin_path);
  auto kernel = correlation::OpenKernel(device, container, cu_name, correlation::Access::kShared);
  VLOG(1) << "Open successfully ";
  return kernel;
}

xrt::device OpenDevice(int device_index) {
  VLOG(1) << "Open the device: " << device_index;
  return xrt::device(static_cast<unsigned int>(device_index));
}

}  // namespace

Kernel_FPGA::Kernel_FPGA(int device_index, int input_size, int output_size)
    : xclbin_path_(ContainerPath()),
      cu_name_(UnitName()),
      device_index_(device_index),
      input_size_(input_size),
      output_size_(output_size) {
  correlation::RequireSizes(input_size_, output_size_);
  xrt::device device = OpenDevice(device_index_);
  kernel_ = BuildKernel(device, xclbin_path_, cu_name_);
  const correlation::Buffers buffers =
      correlation::CreateBuffers(device, *kernel_, input_size_, output_size_);
  bo_left_ = buffers.left;
  bo_right_ = buffers.right;
  bo_output_ = buffers.output;
  cu_base_addr_ = board::ComputeUnitBaseAddress(kKernelName, 0);
  phys_addr_ = correlation::LowAddresses(buffers);
  correlation::RegisterDevice memory;
  regs_ = correlation::MapRegisters(memory.fd(), cu_base_addr_);
  mem_fd_ = memory.Release();
}

Kernel_FPGA::~Kernel_FPGA() {
  correlation::UnmapRegisters(regs_);
  correlation::CloseRegisterDevice(mem_fd_);
}

void Kernel_FPGA::CostVolume_FPGA(ImageFrame* input_l, ImageFrame* input_r, ImageFrame* output) {
  const correlation::SystemTime start = std::chrono::system_clock::now();
  const std::uint32_t exponent =
      correlation::ToUnsigned(correlation::ScaleExponent(*input_l, *input_r, *output));
  const correlation::Buffers buffers{bo_left_, bo_right_, bo_output_};
  correlation::MappedRegisters registers(*kernel_, regs_);
  correlation::RequireIdle(
      registers);  // before the inputs of a run that still goes on are replaced
  correlation::SendInputs(buffers, *input_l, *input_r);
  correlation::Run(registers, buffers, {phys_addr_[0], phys_addr_[1], phys_addr_[2], exponent},
                   kPollInterval);
  VLOG(1) << "FPGA CORR Time Cost: " << correlation::MillisecondsSince(start) << "ms";
  correlation::ReceiveOutput(buffers, *output);
}

CorrelationUnit DescribeCorrelationUnit(int device_index) {
  CorrelationUnit unit{ContainerPath(), UnitName(), 0, {}, {}};
  xrt::device device = OpenDevice(device_index);
  const auto kernel = BuildKernel(device, unit.xclbin_path, unit.cu_name);
  unit.base_address = board::ComputeUnitBaseAddress(kKernelName, 0);
  for (std::size_t i = 0; i < unit.offsets.size(); ++i) {
    unit.offsets[i] = kernel->offset(static_cast<int>(i));
  }
  for (std::size_t i = 0; i < unit.memory_groups.size(); ++i) {
    unit.memory_groups[i] = kernel->group_id(static_cast<int>(i));
  }
  return unit;
}

}  // namespace qx::utils::image
