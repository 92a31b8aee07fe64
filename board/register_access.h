// One 32-bit access to a device register: never merged, split, cached or reordered with other
// register accesses, and ordered with the data whose arrival the register signals.
#pragma once

#include <cstdint>

namespace qx::board {

inline std::uint32_t LoadWord(const volatile std::uint32_t* word) {
  return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}

inline void StoreWord(volatile std::uint32_t* word, std::uint32_t value) {
  __atomic_store_n(word, value, __ATOMIC_RELEASE);
}

}  // namespace qx::board
