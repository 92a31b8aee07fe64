// The device runtime as vitis/ knows it, once more: no more than what is called, and nothing const.
// Every call goes to the DeviceBoard. Stands in for the runtime's headers, whatever their names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/testing/device_board.h"

enum xclBOSyncDirection : int {};

namespace xrt {

inline qx::testing::DeviceBoard& Board() { return qx::testing::DeviceBoard::Get(); }

class uuid {};

class device {
 public:
  explicit device(unsigned index) { Board().Call("device ", index); }
  ~device() { Board().Add("~device"); }
  uuid load_xclbin(const std::string& path) {
    Board().Call("load_xclbin ", path);
    return {};
  }
  operator void*() { return this; }  // NOLINT(google-explicit-constructor): what buffers take
};

class kernel {
 public:
  enum class cu_access_mode : unsigned char {};
  kernel(const device&, const uuid&, const std::string& name, cu_access_mode mode) {
    Board().Call("kernel ", name, " mode ", static_cast<int>(mode));
  }
  ~kernel() { Board().Add("~kernel"); }
  int group_id(int argument) {
    Board().Call("group_id ", argument);
    return 5 + argument;
  }
  unsigned offset(int argument) {
    Board().Call("offset ", argument);
    return argument == 3 ? Board().last_offset : 0x40U + 12U * static_cast<unsigned>(argument);
  }
  void write_register(unsigned offset, unsigned value) {
    Board().Call("write_register ", offset, ' ', value);
  }
  unsigned read_register(unsigned offset) {
    const unsigned word = Board().NextWord();
    Board().Call("read_register ", offset, ' ', word);
    return word;
  }
};

class bo {
 public:
  enum class flags : unsigned {};
  bo(void* /*device*/, unsigned long bytes, flags kind, unsigned group)
      : bytes_(bytes), group_(group) {
    Board().Call("bo ", Role(), ' ', bytes, " flags ", static_cast<int>(kind));
  }
  ~bo() { Board().Add("~bo ", Role()); }
  std::size_t size() { return bytes_.size(); }
  std::uint64_t address() {
    Board().Call("address ", Role());
    return 0x500000000 + std::uint64_t{group_} * 0x1000;
  }
  void write(const void* source, std::size_t bytes, std::size_t offset) {
    Board().Call("write ", Role(), ' ', bytes, " at ", offset);
    std::memcpy(bytes_.data() + offset, source, bytes);
  }
  void read(void* destination, std::size_t bytes, std::size_t offset) {
    Board().Call("read ", Role(), ' ', bytes, " at ", offset);
    std::memcpy(destination, bytes_.data() + offset, bytes);
  }
  void sync(xclBOSyncDirection direction, std::size_t bytes, std::size_t offset) {
    Board().Call("sync ", static_cast<int>(direction), ' ', Role(), ' ', bytes, " at ", offset);
  }

 private:
  const char* Role() const {
    return group_ == 5 ? "left" : group_ == 6 ? "right" : group_ == 7 ? "output" : "lost";
  }

  std::vector<std::uint8_t> bytes_;
  unsigned group_;
};

}  // namespace xrt

namespace xir {

class XrtDeviceHandle {
 public:
  ~XrtDeviceHandle() { xrt::Board().Add("~handle"); }
  static std::shared_ptr<XrtDeviceHandle> get_instance() {
    xrt::Board().Call("get_instance");
    return std::make_shared<XrtDeviceHandle>();
  }
  std::uint64_t address_of(const std::string& kernel, std::size_t core) {
    xrt::Board().Call("address_of ", kernel, ' ', core);
    return 0x8A0010ABC;
  }
};

}  // namespace xir
