// A block of exactly N bytes with an inaccessible page on either side: reading or writing one byte
// past the guarded end ends the test.
#pragma once

#include <glog/logging.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace qx::testing {

class GuardedBuffer {
 public:
  enum class Guard { kEnd, kStart };  // which end touches the protected page

  explicit GuardedBuffer(std::size_t bytes, Guard guard = Guard::kEnd) : size_(bytes) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t inner = (bytes + page - 1) / page * page;
    map_bytes_ = inner + 2 * page;
    map_ = mmap(nullptr, map_bytes_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    PCHECK(map_ != MAP_FAILED);
    std::uint8_t* const first = static_cast<std::uint8_t*>(map_) + page;
    PCHECK(inner == 0 || mprotect(first, inner, PROT_READ | PROT_WRITE) == 0);
    data_ = guard == Guard::kEnd ? first + inner - bytes : first;
  }
  ~GuardedBuffer() { munmap(map_, map_bytes_); }
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  std::uint8_t* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  void* map_;
  std::size_t map_bytes_;
  std::uint8_t* data_;
  std::size_t size_;
};

}  // namespace qx::testing
