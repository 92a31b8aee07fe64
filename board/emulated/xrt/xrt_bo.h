// A device buffer of the emulated board: a host copy, and a block of emulated physical memory that
// is updated only by sync(). Every operation reports failure by throwing. None is const, because a
// real runtime's need not be.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

enum xclBOSyncDirection : std::uint32_t {
  kSyncToDevice = 0,
  kSyncFromDevice = 1,
};

namespace xrt {

class bo {
 public:
  enum class flags : std::uint32_t { normal = 0 };

  bo(void* device, std::size_t bytes, flags kind, unsigned int memory_group);

  std::size_t size();
  std::uint64_t address();  // physical

  void write(const void* source, std::size_t bytes, std::size_t offset);
  void read(void* destination, std::size_t bytes, std::size_t offset);
  void sync(xclBOSyncDirection direction, std::size_t bytes, std::size_t offset);

 private:
  struct Block;
  std::shared_ptr<Block> block_;
};

}  // namespace xrt
