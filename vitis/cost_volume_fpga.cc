// The one-shot ways of running the correlation kernel.
#include <glog/logging.h>

#include "qx_utils/image/cost_volume_frames.h"
#include "qxtools/fpga_correlation.h"
#include "vitis/buffers.h"
#include "vitis/correlation.h"
#include "vitis/registers.h"

namespace qx::utils::image {
namespace {

using correlation::Access;
using correlation::Arguments;
using correlation::Buffers;
using velkar::vision::ImageFrame;

constexpr std::chrono::milliseconds kMappedPollInterval{2};
constexpr std::chrono::microseconds kRuntimePollInterval{100};
// Where CostVolume_FPGA expects the kernel's registers.
constexpr std::uint64_t kRegisterAddress = 0xA0000000;

struct Sizes {
  std::int32_t input, output;  // bytes
};

// Tests the frames and logs their shapes. Returns: the buffer sizes; nothing has been opened yet.
Sizes CheckFrames(const ImageFrame* input_l, const ImageFrame* input_r, const ImageFrame* output) {
  internal::CheckCostVolumeFrames(input_l, input_r, output);
  const std::uint32_t pixels = input_l->Height() * input_l->Width();
  const Sizes sizes{static_cast<std::int32_t>(pixels * input_l->Channel()),
                    static_cast<std::int32_t>(pixels * output->Channel())};
  correlation::RequireSizes(sizes.input, sizes.output);
  return sizes;
}

// Logs the addresses. Returns: the kernel's arguments.
Arguments ArgumentsOf(const Buffers& buffers, std::uint32_t exponent) {
  const auto [left, right, output] = correlation::LowAddresses(buffers);
  VLOG(1) << "Physical Address for left, right, and output buffer: ";
  VLOG(1) << left;
  VLOG(1) << right;
  VLOG(1) << output;
  return {left, right, output, exponent};
}

// The mapped register page.
class RegisterPage {
 public:
  RegisterPage(int fd, std::uint64_t address) : words_(correlation::MapRegisters(fd, address)) {}
  ~RegisterPage() { correlation::UnmapRegisters(words_); }
  RegisterPage(const RegisterPage&) = delete;
  RegisterPage& operator=(const RegisterPage&) = delete;

  volatile std::uint32_t* words() const { return words_; }

 private:
  volatile std::uint32_t* words_;
};

void LogTimeSince(correlation::SystemTime start) {
  VLOG(1) << "FPGA CORR Time Cost: " << correlation::MillisecondsSince(start) << "ms"
          << "\n";
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): taken by value as the interface says
void CostVolume_FPGA(ImageFrame* input_l, ImageFrame* input_r, ImageFrame* output,
                     std::string xclbin_path, std::string cu_name, int device_index) {
  const Sizes sizes = CheckFrames(input_l, input_r, output);
  const std::uint32_t exponent =
      correlation::ToUnsigned(correlation::ScaleExponent(*input_l, *input_r, *output));
  VLOG(1) << exponent;
  VLOG(1) << "Open the device: " << device_index;
  xrt::device device(static_cast<unsigned int>(device_index));
  const xrt::uuid container = correlation::LoadContainer(device, xclbin_path);
  cu_name = correlation::kDefaultUnit;
  VLOG(1) << "Cu_name: " << cu_name;
  VLOG(1) << "TEST CORR";
  const auto kernel = correlation::OpenKernel(device, container, cu_name, Access::kShared);
  VLOG(1) << "Open successfully ";
  VLOG(1) << "TEST CORR";
  const Buffers buffers = correlation::CreateBuffers(device, *kernel, sizes.input, sizes.output);
  VLOG(1) << "TEST CORR";
  const Arguments arguments = ArgumentsOf(buffers, exponent);
  correlation::SendInputs(buffers, *input_l, *input_r);

  const correlation::SystemTime start = std::chrono::system_clock::now();
  const correlation::RegisterDevice memory;
  VLOG(1) << memory.fd();
  const RegisterPage page(memory.fd(), kRegisterAddress);
  correlation::MappedRegisters registers(*kernel, page.words());
  // Not before the inputs were sent, unlike the other ways: they went to buffers of their own.
  correlation::RequireIdle(registers);
  correlation::Run(registers, buffers, arguments, kMappedPollInterval);
  LogTimeSince(start);
  correlation::ReceiveOutput(buffers, *output);
  VLOG(1) << static_cast<std::uint32_t>(sizes.output);
}

void CostVolume_FPGA_old(ImageFrame* input_l, ImageFrame* input_r, ImageFrame* output,
                         std::string xclbin_path, std::string cu_name, int device_index) {
  const Sizes sizes = CheckFrames(input_l, input_r, output);
  const std::int32_t exponent =
      correlation::ToSigned(correlation::ScaleExponent(*input_l, *input_r, *output));
  VLOG(1) << exponent;
  VLOG(1) << "Open the device" << device_index;
  xrt::device device(static_cast<unsigned int>(device_index));
  const xrt::uuid container = correlation::LoadContainer(device, xclbin_path);
  const auto kernel = correlation::OpenKernel(device, container, cu_name, Access::kExclusive);
  correlation::RuntimeRegisters registers(*kernel);
  correlation::RequireIdle(registers);
  const Buffers buffers = correlation::CreateBuffers(device, *kernel, sizes.input, sizes.output);
  const Arguments arguments = ArgumentsOf(buffers, static_cast<std::uint32_t>(exponent));
  correlation::SendInputs(buffers, *input_l, *input_r);

  const correlation::SystemTime start = std::chrono::system_clock::now();
  correlation::Run(registers, buffers, arguments, kRuntimePollInterval);
  LogTimeSince(start);
  correlation::ReceiveOutput(buffers, *output);
}

}  // namespace qx::utils::image
