// What the three ways of running the correlation kernel (kernel_fpga.cc, cost_volume_fpga.cc) have
// in common besides its buffers and registers.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "qxtools/image_frame.h"
#include "xrt/xrt_device.h"
#include "xrt/xrt_kernel.h"

namespace qx::utils::image::correlation {

using SystemTime = std::chrono::system_clock::time_point;

constexpr char kDefaultContainer[] = "/lib/firmware/xilinx/k26brannoc/k26brannoc.xclbin";
constexpr char kDefaultUnit[] = "Corr:{Corr_1}";

// Access modes of a kernel handle, as the device runtime numbers them.
enum class Access { kExclusive = 0, kShared = 1 };

// log2 of one over the product of the scales; the conversions truncate towards zero, saturate, and
// turn NaN into 0, as the board's processor does.
float ScaleExponent(const velkar::vision::ImageFrame& left, const velkar::vision::ImageFrame& right,
                    const velkar::vision::ImageFrame& output);
std::uint32_t ToUnsigned(float exponent);
std::int32_t ToSigned(float exponent);

// Loads the container, and says so in the log.
xrt::uuid LoadContainer(xrt::device& device, const std::string& xclbin_path);

std::shared_ptr<xrt::kernel> OpenKernel(const xrt::device& device, const xrt::uuid& container,
                                        const std::string& unit, Access access);

double MillisecondsSince(SystemTime start);

}  // namespace qx::utils::image::correlation
