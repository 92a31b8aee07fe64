// The device runtime as vitis/ knows it, declared once more: no more than what is called, and
// nothing const. device_board.cc defines it. Stands in for the runtime's headers, whatever their
// names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

enum xclBOSyncDirection : int {};

namespace xrt {

class uuid {};

class device {
 public:
  explicit device(unsigned index);
  ~device();
  uuid load_xclbin(const std::string& path);
  operator void*();  // NOLINT(google-explicit-constructor): the raw handle that buffers take
};

class kernel {
 public:
  enum class cu_access_mode : unsigned char {};
  kernel(const device& board, const uuid& container, const std::string& name, cu_access_mode mode);
  ~kernel();
  int group_id(int argument);
  unsigned offset(int argument);
  void write_register(unsigned offset, unsigned value);
  unsigned read_register(unsigned offset);
};

class bo {
 public:
  enum class flags : unsigned {};
  bo(void* device, unsigned long bytes, flags kind, unsigned group);
  ~bo();
  std::size_t size();
  std::uint64_t address();
  void write(const void* source, std::size_t bytes, std::size_t offset);
  void read(void* destination, std::size_t bytes, std::size_t offset);
  void sync(xclBOSyncDirection direction, std::size_t bytes, std::size_t offset);

 private:
  std::vector<std::uint8_t> bytes_;
  unsigned group_;
};

}  // namespace xrt

namespace xir {

class XrtDeviceHandle {
 public:
  ~XrtDeviceHandle();
  static std::shared_ptr<XrtDeviceHandle> get_instance();
  std::uint64_t address_of(std::string kernel, std::size_t core);
};

}  // namespace xir
