// The bring-up that all ways of running the correlation kernel share: from a device index to a
// handle of the compute unit.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "xrt/xrt_device.h"
#include "xrt/xrt_kernel.h"

namespace qx::utils::image::correlation {

// Access modes of a kernel handle, as the device runtime numbers them.
enum class Access { kExclusive = 0, kShared = 1 };

// What to bind.
struct UnitName {
  int device_index;
  std::string xclbin_path;  // of the bitstream container
  std::string cu_name;      // "Kernel:{Instance}"
  Access access;
};

// The verbose log of a bring-up. The lines are part of the interface, and the three ways of running
// the kernel differ in them.
struct BindLog {
  const char* open_device;  // comes before the device index
  bool names_unit;          // "Cu_name: ", then "TEST CORR"
  bool reports_success;     // "Open successfully "
};

// A device with its container loaded, and a handle of one compute unit. Released in reverse order.
struct BoundUnit {
  xrt::device device;
  std::shared_ptr<xrt::kernel> kernel;
};

// Opens the device, loads the container and opens the compute unit. Errors: the device runtime's.
BoundUnit Bind(const UnitName& name, const BindLog& log);

// Asks the device handle for the physical address of the correlation kernel's registers. The kernel
// is always "Corr", core 0, whatever unit is bound.
std::uint64_t RegisterAddress();

}  // namespace qx::utils::image::correlation
