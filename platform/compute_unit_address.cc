// The header of the device handle and the name of its operation differ between runtimes; the build
// names both (QXTOOLS_DEVICE_HANDLE_HEADER, QXTOOLS_DEVICE_HANDLE_OPERATION).
#include QXTOOLS_DEVICE_HANDLE_HEADER

#include "platform/register_device.h"

namespace qx {
namespace platform {

std::uint64_t ComputeUnitBaseAddress(const std::string& kernel, std::size_t core) {
  return xir::XrtDeviceHandle::get_instance()->QXTOOLS_DEVICE_HANDLE_OPERATION(kernel, core);
}

}  // namespace platform
}  // namespace qx
