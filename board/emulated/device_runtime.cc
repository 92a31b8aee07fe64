// The device runtime's classes (namespaces xrt and xir), carried out on the emulated board.
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "board/emulated/board.h"
#include "board/emulated/hex.h"
#include "xir/xrt_device_handle.hpp"
#include "xrt/xrt_bo.h"
#include "xrt/xrt_device.h"
#include "xrt/xrt_kernel.h"

namespace {

using qx::board::Board;
using qx::board::Hex;

constexpr unsigned kDevices = 1;

// Notes a call of the runtime; throws if a fault was injected for it.
void Enter(const char* name, const std::string& detail) {
  if (Board::Get().log().Fails(name, detail)) {
    throw std::runtime_error("emulated board: " + std::string(name) + '(' + detail +
                             ") failed (injected fault)");
  }
}

void Require(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error("emulated board: " + what);
}

const qx::board::Container::Argument& ArgumentOf(const qx::board::Container& container, int index) {
  Require(index >= 0 && static_cast<std::size_t>(index) < container.arguments.size(),
          "the kernel has no argument " + std::to_string(index));
  return container.arguments[static_cast<std::size_t>(index)];
}

// Adds the time spent in its scope to the board's transfer time.
class TransferTimer {
 public:
  TransferTimer() : start_(std::chrono::steady_clock::now()) {}
  ~TransferTimer() { Board::Get().AddTransferTime(std::chrono::steady_clock::now() - start_); }
  TransferTimer(const TransferTimer&) = delete;
  TransferTimer& operator=(const TransferTimer&) = delete;

 private:
  std::chrono::steady_clock::time_point start_;
};

}  // namespace

namespace xrt {

struct device::Handle {
  ~Handle() { Board::Get().log().Note("xrt::device::~device", ""); }
};

device::device(unsigned int index) {
  Enter("xrt::device::device", std::to_string(index));
  Require(index < kDevices, "no device " + std::to_string(index));
  handle_ = std::make_shared<Handle>();
}

uuid device::load_xclbin(const std::string& path) {
  Enter("xrt::device::load_xclbin", path);
  return uuid(Board::Get().Load(path));
}

device::operator void*() const { return handle_.get(); }

struct kernel::Handle {
  Handle(const uuid& id, const std::string& name, bool is_exclusive) : exclusive(is_exclusive) {
    Board::Get().OpenUnit(id.value(), name, exclusive);
    container = Board::Get().container();
  }
  ~Handle() {
    Board::Get().log().Note("xrt::kernel::~kernel", "");
    Board::Get().CloseUnit(exclusive);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  void RequireRegister(std::uint32_t offset) const {
    Require(exclusive, "the runtime accesses registers only through an exclusive handle");
    Require(offset % 4 == 0 && offset < qx::board::kRegisterBlockBytes,
            "no register " + Hex(offset));
  }

  bool exclusive;
  std::shared_ptr<const qx::board::Container> container;
};

kernel::kernel(const device& board, const uuid& container, const std::string& name,
               cu_access_mode mode) {
  Enter("xrt::kernel::kernel", name + ' ' + std::to_string(static_cast<int>(mode)));
  Require(static_cast<void*>(board) != nullptr, "the device is not open");
  handle_ = std::make_shared<Handle>(container, name, mode == cu_access_mode::exclusive);
}

int kernel::group_id(int argument) {
  Enter("xrt::kernel::group_id", std::to_string(argument));
  return static_cast<int>(ArgumentOf(*handle_->container, argument).group);
}

std::uint32_t kernel::offset(int argument) {
  Enter("xrt::kernel::offset", std::to_string(argument));
  return ArgumentOf(*handle_->container, argument).offset;
}

void kernel::write_register(std::uint32_t offset, std::uint32_t value) {
  Enter("xrt::kernel::write_register", Hex(offset) + ' ' + Hex(value));
  handle_->RequireRegister(offset);
  Board::Get().unit().WriteRegister(offset, value);
}

std::uint32_t kernel::read_register(std::uint32_t offset) {
  Enter("xrt::kernel::read_register", Hex(offset));
  handle_->RequireRegister(offset);
  return Board::Get().unit().ReadRegister(offset);
}

struct bo::Block {
  Block(unsigned int group, std::size_t bytes)
      : address(Board::Get().Allocate(group, bytes)), name(Hex(address)) {
    try {
      host.resize(bytes);
    } catch (...) {
      Board::Get().memory().Free(address);
      throw;
    }
  }
  ~Block() {
    Board::Get().log().Note("xrt::bo::~bo", name);
    Board::Get().memory().Free(address);
  }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;

  // First byte of a range of the host copy.
  std::uint8_t* Range(std::size_t bytes, std::size_t offset) {
    Require(offset <= host.size() && bytes <= host.size() - offset, "range outside the buffer");
    return host.data() + offset;
  }

  std::uint64_t address;
  std::string name;
  std::vector<std::uint8_t> host;
};

bo::bo(void* device, std::size_t bytes, flags kind, unsigned int memory_group) {
  Enter("xrt::bo::bo", std::to_string(bytes) + ' ' + std::to_string(memory_group));
  Require(device != nullptr, "the device is not open");
  Require(kind == flags::normal, "only buffers with flags 0 are emulated");
  block_ = std::make_shared<Block>(memory_group, bytes);
}

std::size_t bo::size() { return block_->host.size(); }

std::uint64_t bo::address() {
  Enter("xrt::bo::address", block_->name);
  return block_->address;
}

void bo::write(const void* source, std::size_t bytes, std::size_t offset) {
  Enter("xrt::bo::write", block_->name + ' ' + std::to_string(bytes));
  const TransferTimer timer;
  std::memcpy(block_->Range(bytes, offset), source, bytes);
}

void bo::read(void* destination, std::size_t bytes, std::size_t offset) {
  Enter("xrt::bo::read", block_->name + ' ' + std::to_string(bytes));
  const TransferTimer timer;
  std::memcpy(destination, block_->Range(bytes, offset), bytes);
}

void bo::sync(xclBOSyncDirection direction, std::size_t bytes, std::size_t offset) {
  Enter("xrt::bo::sync", block_->name + ' ' + std::to_string(static_cast<int>(direction)));
  const TransferTimer timer;
  std::uint8_t* host = block_->Range(bytes, offset);
  Board& board = Board::Get();
  const bool to_device = direction == kSyncToDevice;
  if (to_device) board.unit().ExpectStart();
  const bool done = to_device ? board.memory().Write(block_->address + offset, host, bytes)
                              : board.memory().Read(block_->address + offset, host, bytes);
  Require(done, "synchronisation failed");
}

}  // namespace xrt

namespace xir {

std::shared_ptr<XrtDeviceHandle> XrtDeviceHandle::get_instance() {
  Enter("xir::XrtDeviceHandle::get_instance", "");
  return std::make_shared<XrtDeviceHandle>();
}

std::uint64_t XrtDeviceHandle::get_physical_base_address(const std::string& kernel,
                                                         std::size_t core) {
  Enter("xir::XrtDeviceHandle::get_physical_base_address", kernel + ' ' + std::to_string(core));
  const auto container = Board::Get().container();
  Require(kernel == container->kernel && core == 0,
          "the container has no core " + std::to_string(core) + " of kernel '" + kernel + "'");
  return container->base_address;
}

}  // namespace xir
