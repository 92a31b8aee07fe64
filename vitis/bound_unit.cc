#include "vitis/bound_unit.h"

#include <glog/logging.h>

#include "board/board_interface.h"

namespace qx::utils::image::correlation {

BoundUnit Bind(const UnitName& name, const BindLog& log) {
  VLOG(1) << log.open_device << name.device_index;
  BoundUnit unit{xrt::device(static_cast<unsigned int>(name.device_index)), nullptr};
  VLOG(1) << "Load the xclbin " << name.xclbin_path;
  const xrt::uuid container = unit.device.load_xclbin(name.xclbin_path);
  VLOG(1) << "Build the kernal " << name.xclbin_path;
  if (log.names_unit) {
    VLOG(1) << "Cu_name: " << name.cu_name;
    VLOG(1) << "TEST CORR";
  }
  const auto mode = static_cast<xrt::kernel::cu_access_mode>(name.access);
  unit.kernel = std::make_shared<xrt::kernel>(unit.device, container, name.cu_name, mode);
  if (log.reports_success) VLOG(1) << "Open successfully ";
  return unit;
}

std::uint64_t RegisterAddress() { return board::ComputeUnitBaseAddress("Corr", 0); }

}  // namespace qx::utils::image::correlation
