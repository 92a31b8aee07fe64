// The one-shot ways of running the correlation kernel.
#include <glog/logging.h>

#include "qx_utils/internal/frame_view.h"
#include "qxtools/fpga_correlation.h"
#include "vitis/correlation.h"

namespace qx {
namespace utils {
namespace image {
namespace {

using correlation::Access;
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
  const internal::FrameView left(*input_l);
  const internal::FrameView right(*input_r);
  const internal::FrameView cost(*output);
  internal::CheckCostVolumeFrames(&left, &right, &cost);
  const std::uint32_t pixels = left.height * left.width;
  const Sizes sizes{static_cast<std::int32_t>(pixels * left.channels),
                    static_cast<std::int32_t>(pixels * cost.channels)};
  correlation::RequireSizes(sizes.input, sizes.output);
  return sizes;
}

xrt::uuid LoadContainer(xrt::device& device, const std::string& xclbin_path) {
  VLOG(1) << "Load the xclbin " << xclbin_path;
  const xrt::uuid container = device.load_xclbin(xclbin_path);
  VLOG(1) << "Build the kernal " << xclbin_path;
  return container;
}

// The three device buffers; released in reverse order.
struct Buffers {
  Buffers(const xrt::device& device, const xrt::kernel& kernel, const Sizes& sizes)
      : left(correlation::CreateBuffer(device, kernel, 0, sizes.input)),
        right(correlation::CreateBuffer(device, kernel, 1, sizes.input)),
        output(correlation::CreateBuffer(device, kernel, 2, sizes.output)) {}

  // Logs the addresses. Returns: the kernel's arguments.
  correlation::Arguments ArgumentsWith(std::uint32_t exponent) const {
    const correlation::Arguments arguments = {correlation::LowAddress(*left),
                                              correlation::LowAddress(*right),
                                              correlation::LowAddress(*output), exponent};
    VLOG(1) << "Physical Address for left, right, and output buffer: ";
    for (std::size_t i = 0; i < 3; ++i) VLOG(1) << arguments[i];
    return arguments;
  }

  void Send(const ImageFrame& input_l, const ImageFrame& input_r) {
    correlation::SendInputs(*left, *right, input_l.Data(), input_r.Data());
    VLOG(1) << "CORR_FPGA Execution Start";
  }

  std::shared_ptr<xrt::bo> left;
  std::shared_ptr<xrt::bo> right;
  std::shared_ptr<xrt::bo> output;
};

// The mapped register page.
class RegisterPage {
 public:
  RegisterPage(int fd, std::uint64_t address)
      : registers_(correlation::MapRegisters(fd, address)) {}
  ~RegisterPage() { correlation::UnmapRegisters(registers_); }
  RegisterPage(const RegisterPage&) = delete;
  RegisterPage& operator=(const RegisterPage&) = delete;

  volatile std::uint32_t* registers() const { return registers_; }

 private:
  volatile std::uint32_t* registers_;
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
  const xrt::uuid container = LoadContainer(device, xclbin_path);
  cu_name = correlation::kDefaultUnit;
  VLOG(1) << "Cu_name: " << cu_name;
  VLOG(1) << "TEST CORR";
  const auto kernel = correlation::OpenKernel(device, container, cu_name, Access::kShared);
  VLOG(1) << "Open successfully ";
  VLOG(1) << "TEST CORR";
  Buffers buffers(device, *kernel, sizes);
  VLOG(1) << "TEST CORR";
  const correlation::Arguments arguments = buffers.ArgumentsWith(exponent);
  buffers.Send(*input_l, *input_r);

  const correlation::SystemTime start = std::chrono::system_clock::now();
  const correlation::RegisterDevice memory;
  VLOG(1) << memory.fd();
  const RegisterPage page(memory.fd(), kRegisterAddress);
  correlation::RunMapped(*kernel, page.registers(), arguments, kMappedPollInterval);
  LogTimeSince(start);
  correlation::ReceiveOutput(*buffers.output, *output);
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
  const xrt::uuid container = LoadContainer(device, xclbin_path);
  const auto kernel = correlation::OpenKernel(device, container, cu_name, Access::kExclusive);
  Buffers buffers(device, *kernel, sizes);
  const correlation::Arguments arguments =
      buffers.ArgumentsWith(static_cast<std::uint32_t>(exponent));
  buffers.Send(*input_l, *input_r);

  const correlation::SystemTime start = std::chrono::system_clock::now();
  correlation::RunThroughRuntime(*kernel, arguments, kRuntimePollInterval);
  LogTimeSince(start);
  correlation::ReceiveOutput(*buffers.output, *output);
}

}  // namespace image
}  // namespace utils
}  // namespace qx
