// The process-wide handle of the emulated board's device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace xir {

class XrtDeviceHandle {
 public:
  static std::shared_ptr<XrtDeviceHandle> get_instance();

  // Physical base address of the registers of core `core` of `kernel`. Throws when the loaded
  // container has no such unit.
  std::uint64_t get_physical_base_address(const std::string& kernel, std::size_t core);
};

}  // namespace xir
