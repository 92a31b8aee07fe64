// A block of exactly N bytes with an inaccessible page on either side: reading or writing one byte
// past the guarded end ends the test.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx {
namespace testing {

class GuardedBuffer {
 public:
  enum class Guard { kEnd, kStart };  // which end touches the protected page

  explicit GuardedBuffer(std::size_t bytes, Guard guard = Guard::kEnd);
  ~GuardedBuffer();
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

}  // namespace testing
}  // namespace qx
