// The stereo cost volume computed by the correlation kernel in the programmable logic.
//
// Kernel_FPGA prepares the device once and then runs any number of pairs. The one-shot functions
// prepare and release everything in each call.
//
// The kernel computes what CostVolume() (cost_volume.h) computes, for the one shape of feature maps
// that its bitstream was built for, with one difference: it receives the product of the three
// frames' scales only as a power of two, 2^-e. The exponent e is log2(1 / product), computed in
// single precision and rounded towards zero. The emulated board returns the same bytes as
// CostVolume() if the product is exactly 2^-e with e >= 0, or zero. For other products between 0
// and 1 it returns the bytes of CostVolume() for the next larger power of two (or for the power
// just below, if the product exceeds it so little that log2 rounds to an integer). docs/fpga.md has
// the details, the emulated board's settings and the privileges that a real board needs.
//
// Threads: there is one compute unit and no lock. The caller must make sure that runs never
//          overlap, whether of one object, of several objects or of the one-shot functions.
// Errors:  exceptions of the device runtime reach the caller after everything built so far has been
//          released. In addition:
//            std::invalid_argument  a buffer size is zero or negative; nothing was opened
//            std::out_of_range      the container puts a kernel argument outside the register page,
//                                   or at an offset that is not a multiple of 4; nothing was stored
//            std::system_error      "/dev/mem" cannot be opened or mapped; this needs superuser
//                                   privileges
//            KernelTimeout          a run did not finish within the limit, or the kernel is still
//                                   busy with such a run. The object can be destroyed, or used
//                                   again once the kernel has finished.
//          A run that ends with an error value of the kernel is not reported: any control word
//          other than 1 counts as the end of a run. The output then holds whatever its device
//          buffer held, for example the costs of the previous run.
// Memory:  a kernel that still runs after a KernelTimeout continues to use its three device
//          buffers. They are kept, even when their object is destroyed, until the next run finds
//          the kernel idle; there is never more than one set of them. The log says so at ERROR.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "qxtools/export.h"
#include "qxtools/image_frame.h"

namespace xrt {
class bo;
class kernel;
}  // namespace xrt

namespace qx::utils::image {

// Used where the environment (Kernel_FPGA) or a parameter (the one-shot functions) names no other.
inline constexpr char kDefaultXclbinPath[] = "/lib/firmware/xilinx/k26brannoc/k26brannoc.xclbin";
inline constexpr char kDefaultCuName[] = "Corr:{Corr_1}";

class QXTOOLS_EXPORT KernelTimeout : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~KernelTimeout() override;
};

// How long a run may take before it fails with KernelTimeout. Applies to all runs of the process
// that start later; the default is 10 seconds. With milliseconds::max() a run waits forever; with
// zero or less it fails unless the first read of the control word shows that it has ended.
// Threads: safe from any thread.
QXTOOLS_EXPORT void SetKernelTimeLimit(std::chrono::milliseconds limit);
QXTOOLS_EXPORT std::chrono::milliseconds KernelTimeLimit();

class QXTOOLS_EXPORT Kernel_FPGA {
 public:
  // Opens a device, loads the bitstream and prepares the kernel, its buffers and its registers.
  //
  // Inputs: device_index  FPGA device, from 0.
  //         input_size    bytes of each feature map, H x W x C.
  //         output_size   bytes of the cost volume, H x W x D.
  //         environment   "xclbin_path" names the bitstream container instead of
  //                       kDefaultXclbinPath, "cu_name" the compute unit instead of kDefaultCuName.
  //                       A variable that is set but empty counts as set.
  Kernel_FPGA(int device_index, int input_size, int output_size);

  // Unmaps and closes the registers, then releases the kernel and the buffers.
  ~Kernel_FPGA();

  Kernel_FPGA(const Kernel_FPGA&) = delete;
  Kernel_FPGA& operator=(const Kernel_FPGA&) = delete;

  // Runs the kernel on one pair and returns when the output holds the result.
  //
  // Inputs: input_l, input_r  frames with at least input_size bytes at Data(). Only Data() and
  //                           `scale` of the three frames are read; nothing is checked.
  // Output: output            exactly output_size bytes are written to Data().
  // Errors: see the top of this header. The object stays usable; only buffer contents change.
  // Cost:   two copies to the device and one back; polls every 100 microseconds.
  void CostVolume_FPGA(velkar::vision::ImageFrame* input_l, velkar::vision::ImageFrame* input_r,
                       velkar::vision::ImageFrame* output);

 private:
  // Members are released in reverse order, so the kernel before the buffers.
  std::string xclbin_path_;
  std::string cu_name_;
  std::int32_t device_index_;
  std::int32_t input_size_;
  std::int32_t output_size_;
  std::int32_t mem_fd_;
  std::shared_ptr<xrt::bo> bo_left_;
  std::shared_ptr<xrt::bo> bo_right_;
  std::shared_ptr<xrt::bo> bo_output_;
  std::shared_ptr<xrt::kernel> kernel_;
  std::uint64_t cu_base_addr_;
  volatile std::uint32_t* regs_;
  std::array<std::uint32_t, 3> phys_addr_ = {};
};

// Computes one cost volume with everything opened and released inside the call.
//
// Inputs: input_l, input_r  feature maps of format kQXPixelFormatUint8 and equal DataSize(). The
//                           left one's shape H x W x C is used for both.
//         xclbin_path       bitstream container to load.
//         cu_name           ignored: the unit is always kDefaultCuName, and its registers must be
//                           at physical address 0xA0000000.
//         device_index      FPGA device, from 0.
// Output: output            format kQXPixelFormatUint8; H x W x D bytes are written, D = Channel().
// Errors: ends the process through a fatal log line if a pixel format is wrong or the inputs differ
//         in DataSize(); otherwise see the top of this header. The blocks at Data() must be as
//         large as the shapes say; this is not checked.
// Cost:   dominated by loading the bitstream. Polls every 2 milliseconds.
QXTOOLS_EXPORT void CostVolume_FPGA(velkar::vision::ImageFrame* input_l,
                                    velkar::vision::ImageFrame* input_r,
                                    velkar::vision::ImageFrame* output, std::string xclbin_path,
                                    std::string cu_name, int device_index);

// The same through the device runtime's register calls instead of "/dev/mem", which needs no
// privileges. Opens the compute unit `cu_name` exclusively: it fails while any other handle of the
// unit, such as a Kernel_FPGA, exists. Polls every 100 microseconds. A negative exponent (product
// of the scales above 1) reaches the kernel as its two's complement.
QXTOOLS_EXPORT void CostVolume_FPGA_old(velkar::vision::ImageFrame* input_l,
                                        velkar::vision::ImageFrame* input_r,
                                        velkar::vision::ImageFrame* output, std::string xclbin_path,
                                        std::string cu_name, int device_index);

// A correlation kernel as the device and its container describe it.
struct CorrelationUnit {
  std::string xclbin_path;
  std::string cu_name;
  std::uint64_t base_address;            // physical, of the registers
  std::array<std::uint32_t, 4> offsets;  // of arguments 0 .. 3 in the register page
  std::array<int, 3> memory_groups;      // of the left, right and output buffer
};

// Opens the device, loads the container and binds the compute unit as Kernel_FPGA does (with the
// same environment variables), queries it, and releases everything again.
QXTOOLS_EXPORT CorrelationUnit DescribeCorrelationUnit(int device_index);

}  // namespace qx::utils::image
