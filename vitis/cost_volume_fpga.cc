// The one-shot ways of running the correlation kernel.
#include <glog/logging.h>

#include "qx_utils/image/cost_volume_frames.h"
#include "qxtools/fpga_correlation.h"
#include "vitis/bound_unit.h"
#include "vitis/buffers.h"
#include "vitis/registers.h"
#include "vitis/run.h"
#include "vitis/scale_exponent.h"

namespace qx::utils::image {
namespace {

using correlation::Access;
using correlation::Arguments;
using correlation::Buffers;
using correlation::BufferSizes;
using velkar::vision::ImageFrame;

constexpr std::chrono::milliseconds kMappedPollInterval{2};
constexpr std::chrono::microseconds kRuntimePollInterval{100};
// Where CostVolume_FPGA expects the kernel's registers.
constexpr std::uint64_t kRegisterAddress = 0xA0000000;

// Checks the frames and logs their shapes. Returns: the buffer sizes.
BufferSizes CheckFrames(const ImageFrame* input_l, const ImageFrame* input_r,
                        const ImageFrame* output) {
  internal::CheckCostVolumeFrames(input_l, input_r, output);
  const std::uint32_t pixels = input_l->Height() * input_l->Width();
  const BufferSizes sizes{static_cast<std::int32_t>(pixels * input_l->Channel()),
                          static_cast<std::int32_t>(pixels * output->Channel())};
  RequirePositive(sizes);
  return sizes;
}

// Logs the addresses. Returns: the kernel's arguments.
Arguments ArgumentsOf(const Buffers& buffers, std::uint32_t exponent) {
  const auto [left, right, output] = LowAddresses(buffers);
  VLOG(1) << "Physical Address for left, right, and output buffer: ";
  VLOG(1) << left;
  VLOG(1) << right;
  VLOG(1) << output;
  return {left, right, output, exponent};
}

void LogTimeSince(correlation::SystemTime start) {
  VLOG(1) << "FPGA CORR Time Cost: " << correlation::MillisecondsSince(start) << "ms"
          << "\n";
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): taken by value as the interface says
void CostVolume_FPGA(ImageFrame* input_l, ImageFrame* input_r, ImageFrame* output,
                     std::string xclbin_path, std::string /*cu_name*/, int device_index) {
  const BufferSizes sizes = CheckFrames(input_l, input_r, output);
  const std::uint32_t exponent =
      correlation::ToUnsigned(correlation::ScaleExponent(*input_l, *input_r, *output));
  VLOG(1) << exponent;
  correlation::BoundUnit unit =
      correlation::Bind({device_index, xclbin_path, kDefaultCuName, Access::kShared},
                        {"Open the device: ", true, true});
  VLOG(1) << "TEST CORR";
  const Buffers buffers = CreateBuffers(unit, sizes);
  VLOG(1) << "TEST CORR";
  const Arguments arguments = ArgumentsOf(buffers, exponent);
  SendInputs(buffers, *input_l, *input_r);

  const correlation::SystemTime start = std::chrono::system_clock::now();
  const correlation::RegisterDevice device;
  VLOG(1) << device.fd();
  const correlation::RegisterPage page(device, kRegisterAddress);
  correlation::MappedRegisters registers(*unit.kernel, page.words());
  RequireIdle(registers);  // the inputs are in new buffers, which a run in progress does not read
  Run(registers, buffers, arguments, kMappedPollInterval);
  LogTimeSince(start);
  ReceiveOutput(buffers, *output);
  VLOG(1) << static_cast<std::uint32_t>(sizes.output);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): taken by value as the interface says
void CostVolume_FPGA_old(ImageFrame* input_l, ImageFrame* input_r, ImageFrame* output,
                         std::string xclbin_path, std::string cu_name, int device_index) {
  const BufferSizes sizes = CheckFrames(input_l, input_r, output);
  const std::int32_t exponent =
      correlation::ToSigned(correlation::ScaleExponent(*input_l, *input_r, *output));
  VLOG(1) << exponent;
  correlation::BoundUnit unit = correlation::Bind(
      {device_index, xclbin_path, cu_name, Access::kExclusive}, {"Open the device", false, false});
  correlation::RuntimeRegisters registers(*unit.kernel);
  RequireIdle(registers);
  const Buffers buffers = CreateBuffers(unit, sizes);
  const Arguments arguments = ArgumentsOf(buffers, static_cast<std::uint32_t>(exponent));
  SendInputs(buffers, *input_l, *input_r);

  const correlation::SystemTime start = std::chrono::system_clock::now();
  Run(registers, buffers, arguments, kRuntimePollInterval);
  LogTimeSince(start);
  ReceiveOutput(buffers, *output);
}

}  // namespace qx::utils::image
