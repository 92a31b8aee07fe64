#include "vitis/correlation.h"

#include <glog/logging.h>

#include <cmath>
#include <limits>

namespace qx::utils::image::correlation {

float ScaleExponent(const velkar::vision::ImageFrame& left, const velkar::vision::ImageFrame& right,
                    const velkar::vision::ImageFrame& output) {
  return std::log2(1.0F / (right.scale * left.scale * output.scale));
}

std::uint32_t ToUnsigned(float exponent) {
  if (!(exponent > 0.0F)) return 0;  // NaN, too
  if (exponent >= 4294967296.0F) return std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(exponent);
}

std::int32_t ToSigned(float exponent) {
  if (std::isnan(exponent)) return 0;
  if (exponent >= 2147483648.0F) return std::numeric_limits<std::int32_t>::max();
  if (exponent <= -2147483648.0F) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(exponent);
}

xrt::uuid LoadContainer(xrt::device& device, const std::string& xclbin_path) {
  VLOG(1) << "Load the xclbin " << xclbin_path;
  xrt::uuid container = device.load_xclbin(xclbin_path);
  VLOG(1) << "Build the kernal " << xclbin_path;
  return container;
}

std::shared_ptr<xrt::kernel> OpenKernel(const xrt::device& device, const xrt::uuid& container,
                                        const std::string& unit, Access access) {
  return std::make_shared<xrt::kernel>(device, container, unit,
                                       static_cast<xrt::kernel::cu_access_mode>(access));
}

double MillisecondsSince(SystemTime start) {
  const std::chrono::nanoseconds time = std::chrono::system_clock::now() - start;
  return static_cast<double>(time.count()) / 1e9 * 1000.0;
}

}  // namespace qx::utils::image::correlation
