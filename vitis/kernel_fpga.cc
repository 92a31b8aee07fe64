// The long-lived way of running the correlation kernel.
#include <glog/logging.h>

#include <cstdlib>

#include "qxtools/fpga_correlation.h"
#include "vitis/bound_unit.h"
#include "vitis/buffers.h"
#include "vitis/registers.h"
#include "vitis/run.h"
#include "vitis/scale_exponent.h"

namespace qx::utils::image {
namespace {

using correlation::Buffers;
using correlation::RegisterDevice;
using correlation::RegisterPage;
using velkar::vision::ImageFrame;

constexpr std::chrono::microseconds kPollInterval{100};

std::string VariableOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : fallback;
}

std::string XclbinPath() { return VariableOr("xclbin_path", kDefaultXclbinPath); }
std::string CuName() { return VariableOr("cu_name", kDefaultCuName); }

correlation::BoundUnit BindShared(int device_index, const std::string& xclbin_path,
                                  const std::string& cu_name) {
  return correlation::Bind({device_index, xclbin_path, cu_name, correlation::Access::kShared},
                           {"Open the device: ", false, true});
}

}  // namespace

Kernel_FPGA::Kernel_FPGA(int device_index, int input_size, int output_size)
    : xclbin_path_(XclbinPath()),
      cu_name_(CuName()),
      device_index_(device_index),
      input_size_(input_size),
      output_size_(output_size) {
  const correlation::BufferSizes sizes{input_size_, output_size_};
  RequirePositive(sizes);
  correlation::BoundUnit unit = BindShared(device_index_, xclbin_path_, cu_name_);
  const Buffers buffers = CreateBuffers(unit, sizes);
  kernel_ = unit.kernel;
  bo_left_ = buffers.left;
  bo_right_ = buffers.right;
  bo_output_ = buffers.output;
  cu_base_addr_ = correlation::RegisterAddress();
  phys_addr_ = LowAddresses(buffers);
  RegisterDevice device;
  regs_ = RegisterPage(device, cu_base_addr_).Release();
  mem_fd_ = device.Release();
}

Kernel_FPGA::~Kernel_FPGA() {
  const RegisterDevice device(mem_fd_);
  const RegisterPage page(regs_);
}

void Kernel_FPGA::CostVolume_FPGA(ImageFrame* input_l, ImageFrame* input_r, ImageFrame* output) {
  const correlation::SystemTime start = std::chrono::system_clock::now();
  const std::uint32_t exponent =
      correlation::ToUnsigned(correlation::ScaleExponent(*input_l, *input_r, *output));
  const Buffers buffers{bo_left_, bo_right_, bo_output_};
  correlation::MappedRegisters registers(*kernel_, regs_);
  RequireIdle(registers);  // first: a run in progress still reads its inputs
  SendInputs(buffers, *input_l, *input_r);
  Run(registers, buffers, {phys_addr_[0], phys_addr_[1], phys_addr_[2], exponent}, kPollInterval);
  VLOG(1) << "FPGA CORR Time Cost: " << correlation::MillisecondsSince(start) << "ms";
  ReceiveOutput(buffers, *output);
}

CorrelationUnit DescribeCorrelationUnit(int device_index) {
  CorrelationUnit description{XclbinPath(), CuName(), 0, {}, {}};
  const auto unit = BindShared(device_index, description.xclbin_path, description.cu_name);
  description.base_address = correlation::RegisterAddress();
  int argument = 0;
  for (auto& offset : description.offsets) offset = unit.kernel->offset(argument++);
  argument = 0;
  for (auto& group : description.memory_groups) group = unit.kernel->group_id(argument++);
  return description;
}

}  // namespace qx::utils::image
