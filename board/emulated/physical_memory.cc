#include "board/emulated/physical_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <system_error>

#include "board/emulated/container.h"

namespace qx::board {
namespace {

// Moves all of `bytes` with pread or pwrite, which may move less at a time.
template <typename Byte, typename Transfer>
bool TransferAll(Transfer transfer, int fd, Byte* host, std::size_t bytes, std::uint64_t address) {
  while (bytes != 0) {
    const ssize_t moved = transfer(fd, host, bytes, static_cast<off_t>(address));
    if (moved < 0 && errno == EINTR) continue;
    if (moved <= 0) return false;
    host += moved;
    bytes -= static_cast<std::size_t>(moved);
    address += static_cast<std::uint64_t>(moved);
  }
  return true;
}

}  // namespace

PhysicalMemory::PhysicalMemory() : fd_(memfd_create("qxtools-board", MFD_CLOEXEC)) {
  if (fd_ < 0 || ftruncate(fd_, static_cast<off_t>(kPhysicalMemoryBytes)) != 0) {
    const int error = errno;
    if (fd_ >= 0) close(fd_);
    throw std::system_error(error, std::generic_category(),
                            "emulated board: cannot create its physical memory");
  }
}

PhysicalMemory::~PhysicalMemory() { close(fd_); }

std::uint64_t PhysicalMemory::Allocate(const emulated_board::MemoryGroup& group,
                                       std::uint64_t bytes) {
  if (bytes == 0 || bytes > group.size) return 0;
  const std::lock_guard<std::mutex> lock(mutex_);
  std::uint64_t address = group.base;
  for (auto block = blocks_.lower_bound(group.base); block != blocks_.end(); ++block) {
    if (address + bytes <= block->first) break;  // fits in front of this block
    address = block->first + RoundUpToPages(block->second);
  }
  if (address + bytes > group.base + group.size) return 0;
  blocks_.emplace(address, bytes);
  return address;
}

void PhysicalMemory::Free(std::uint64_t address) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto block = blocks_.find(address);
  fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(address),
            static_cast<off_t>(RoundUpToPages(block->second)));
  blocks_.erase(block);
}

bool PhysicalMemory::IsAllocated(std::uint64_t address, std::size_t bytes) const {
  auto block = blocks_.upper_bound(address);
  if (block == blocks_.begin()) return false;
  block = std::prev(block);
  const std::uint64_t inside = address - block->first;
  return inside <= block->second && bytes <= block->second - inside;
}

bool PhysicalMemory::Read(std::uint64_t address, void* destination, std::size_t bytes) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return IsAllocated(address, bytes) &&
         TransferAll(pread, fd_, static_cast<std::uint8_t*>(destination), bytes, address);
}

bool PhysicalMemory::Write(std::uint64_t address, const void* source, std::size_t bytes) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return IsAllocated(address, bytes) &&
         TransferAll(pwrite, fd_, static_cast<const std::uint8_t*>(source), bytes, address);
}

std::size_t PhysicalMemory::buffers() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return blocks_.size();
}

std::uint64_t PhysicalMemory::buffer_bytes() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::uint64_t sum = 0;
  for (const auto& block : blocks_) sum += block.second;
  return sum;
}

}  // namespace qx::board
