// Identity of a loaded container.
#pragma once

#include <cstdint>

namespace xrt {

class uuid {
 public:
  uuid() = default;
  explicit uuid(std::uint64_t value) : value_(value) {}
  std::uint64_t value() const { return value_; }

 private:
  std::uint64_t value_ = 0;
};

}  // namespace xrt
