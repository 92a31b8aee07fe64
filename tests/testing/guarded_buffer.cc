#include "tests/testing/guarded_buffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace qx {
namespace testing {

GuardedBuffer::GuardedBuffer(std::size_t bytes, Guard guard) : size_(bytes) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t inner = (bytes + page - 1) / page * page;
  map_bytes_ = inner + 2 * page;
  map_ = mmap(nullptr, map_bytes_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map_ == MAP_FAILED) throw std::bad_alloc();
  std::uint8_t* first = static_cast<std::uint8_t*>(map_) + page;
  if (inner != 0 && mprotect(first, inner, PROT_READ | PROT_WRITE) != 0) {
    munmap(map_, map_bytes_);
    throw std::bad_alloc();
  }
  data_ = guard == Guard::kEnd ? first + inner - bytes : first;
}

GuardedBuffer::~GuardedBuffer() { munmap(map_, map_bytes_); }

}  // namespace testing
}  // namespace qx
