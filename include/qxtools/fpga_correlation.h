// The stereo cost volume computed by the correlation kernel in the programmable logic.
//
// Kernel_FPGA prepares the device once and serves any number of pairs. The one-shot functions
// prepare and release everything in each call.
//
// The kernel computes what CostVolume() (cost_volume.h) computes, for the one shape of feature maps
// that its bitstream was built for, with one difference: it knows the product of the three frames'
// scales only as a power of two, 2^-e. The exponent e is log2(1 / product), computed in single
// precision and rounded towards zero. The emulated board gives the same bytes as CostVolume() when
// the product is exactly 2^-e with e >= 0, or zero; for other products between 0 and 1 it gives the
// bytes that CostVolume() gives for the next larger power of two (or for the product's own, when it
// is so little above it that log2 comes out whole). docs/fpga.md has the details, the emulated
// board's settings and the privileges that a real board needs.
//
// Threads: there is one compute unit and no lock. Runs must not overlap, be it of one object, of
//          several or of the one-shot functions; serialising them is the caller's duty.
// Errors:  what the device runtime throws reaches the caller after everything built so far has
//          been released. On top of that:
//            std::invalid_argument  a buffer size is zero or negative; nothing was opened
//            std::out_of_range      the container puts a kernel argument outside the register page,
//                                   or at no multiple of 4; nothing was stored
//            std::system_error      "/dev/mem" cannot be opened or mapped (it needs the privileges
//                                   of the superuser)
//            KernelTimeout          a run did not end within the limit, or the kernel is still busy
//                                   with such a run. The object can be destroyed, or used again
//                                   once the kernel has ended.
//          A run that ends with an error value of the kernel is no error here: any value of the
//          control word but 1 is an end. The output then holds what was in its device buffer, the
//          costs of the previous run for example.
// Memory:  a kernel that still runs after a KernelTimeout goes on using its three device buffers.
//          They are kept on purpose, even when their object is destroyed, until the next run finds
//          the kernel idle: never more than one run's buffers. The log says so at ERROR.
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

class QXTOOLS_EXPORT KernelTimeout : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~KernelTimeout() override;
};

// How long a run may take before it fails with KernelTimeout; for all runs of the process that
// start later. 10 seconds unless set. With milliseconds::max() a run waits for ever; with zero or
// less it fails unless the first look finds that it has ended. Threads: safe from any thread.
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
  //                       "/lib/firmware/xilinx/k26brannoc/k26brannoc.xclbin", "cu_name" the
  //                       compute unit instead of "Corr:{Corr_1}". Set but empty counts as set.
  Kernel_FPGA(int device_index, int input_size, int output_size);

  // Unmaps and closes the registers, then releases the kernel and the buffers.
  ~Kernel_FPGA();

  Kernel_FPGA(const Kernel_FPGA&) = delete;
  Kernel_FPGA& operator=(const Kernel_FPGA&) = delete;

  // Runs the kernel on one pair and returns when the output holds the result.
  //
  // Inputs: input_l, input_r  frames whose Data() blocks hold at least input_size bytes. Of all
  //                           three frames only Data() and `scale` are read; nothing is checked.
  // Output: output            exactly output_size bytes are written to Data().
  // Errors: see the top of this header. The object stays as it was, buffer contents aside.
  // Cost:   two copies to the device, one back; looks every 100 microseconds whether it has ended.
  void CostVolume_FPGA(velkar::vision::ImageFrame* input_l, velkar::vision::ImageFrame* input_r,
                       velkar::vision::ImageFrame* output);

 private:
  // The declaration order is the reverse of the release order: the kernel goes before the buffers.
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
//                           left one's shape H x W x C counts for both.
//         xclbin_path       bitstream container to load.
//         cu_name           ignored: the unit is always "Corr:{Corr_1}", and its registers must be
//                           at physical address 0xA0000000.
//         device_index      FPGA device, from 0.
// Output: output            format kQXPixelFormatUint8; H x W x D bytes are written, D = Channel().
// Errors: ends the process through a fatal log line when a pixel format is another one or the
//         inputs differ in DataSize(); otherwise see the top of this header. The blocks at Data()
//         are trusted to be as large as the shapes say.
// Cost:   loading the bitstream dominates. Looks every 2 milliseconds whether the run has ended.
QXTOOLS_EXPORT void CostVolume_FPGA(velkar::vision::ImageFrame* input_l,
                                    velkar::vision::ImageFrame* input_r,
                                    velkar::vision::ImageFrame* output, std::string xclbin_path,
                                    std::string cu_name, int device_index);

// The same through the device runtime's register calls instead of "/dev/mem", so that no privileges
// are needed. Opens the compute unit `cu_name` exclusively: it fails while any other handle of the
// unit, such as a Kernel_FPGA, exists. Looks every 100 microseconds whether the run has ended. A
// negative exponent (product of the scales above 1) reaches the kernel as its two's complement.
QXTOOLS_EXPORT void CostVolume_FPGA_old(velkar::vision::ImageFrame* input_l,
                                        velkar::vision::ImageFrame* input_r,
                                        velkar::vision::ImageFrame* output, std::string xclbin_path,
                                        std::string cu_name, int device_index);

// What a device and the container loaded into it say about a correlation kernel.
struct CorrelationUnit {
  std::string xclbin_path;
  std::string cu_name;
  std::uint64_t base_address;            // physical, of the registers
  std::array<std::uint32_t, 4> offsets;  // of arguments 0 .. 3 in the register page
  std::array<int, 3> memory_groups;      // of the left, right and output buffer
};

// Opens the device, loads the container and binds the unit that Kernel_FPGA would, asks, and
// releases everything again. Reads the same environment variables.
QXTOOLS_EXPORT CorrelationUnit DescribeCorrelationUnit(int device_index);

}  // namespace qx::utils::image
