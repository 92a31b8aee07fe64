// A handle of one compute unit of the emulated board. Every operation reports failure by
// throwing. None is const, because a real runtime's need not be.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "xrt/xrt_device.h"
#include "xrt/xrt_uuid.h"

namespace xrt {

class kernel {
 public:
  enum class cu_access_mode : std::uint8_t { exclusive = 0, shared = 1 };

  // `name` is "Kernel:{Instance}". An exclusive handle must be the only one of its unit.
  kernel(const device& board, const uuid& container, const std::string& name, cu_access_mode mode);

  int group_id(int argument);
  std::uint32_t offset(int argument);

  // Registers through the runtime; for exclusive handles only.
  void write_register(std::uint32_t offset, std::uint32_t value);
  std::uint32_t read_register(std::uint32_t offset);

 private:
  struct Handle;
  std::shared_ptr<Handle> handle_;
};

}  // namespace xrt
