// The emulated board's physical memory: a sparse file of 64 GiB in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

#include "qxtools/emulated_board.h"

namespace qx::board {

// Threads: safe from any thread.
class PhysicalMemory {
 public:
  PhysicalMemory();  // throws std::system_error
  ~PhysicalMemory();
  PhysicalMemory(const PhysicalMemory&) = delete;
  PhysicalMemory& operator=(const PhysicalMemory&) = delete;

  // Physical addresses are offsets into this file.
  int fd() const { return fd_; }

  // Reserves zeroed bytes within `group`. Returns: their address, or 0 if they do not fit.
  std::uint64_t Allocate(const emulated_board::MemoryGroup& group, std::uint64_t bytes);
  void Free(std::uint64_t address);

  // Accesses by the device. Returns: false, with nothing copied, if the range is not within one
  // allocated buffer.
  [[nodiscard]] bool Read(std::uint64_t address, void* destination, std::size_t bytes) const;
  [[nodiscard]] bool Write(std::uint64_t address, const void* source, std::size_t bytes);

  std::size_t buffers() const;
  std::uint64_t buffer_bytes() const;

 private:
  bool IsAllocated(std::uint64_t address, std::size_t bytes) const;

  int fd_;
  mutable std::mutex mutex_;
  std::map<std::uint64_t, std::uint64_t> blocks_;  // address to size
};

}  // namespace qx::board
