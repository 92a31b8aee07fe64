// The emulated board's device. Every operation reports failure by throwing.
#pragma once

#include <memory>
#include <string>

#include "xrt/xrt_uuid.h"

namespace xrt {

class device {
 public:
  explicit device(unsigned int index);

  // Loads a container and programs the logic with it. While a compute unit is open, only the
  // container that is loaded already can be loaded.
  uuid load_xclbin(const std::string& path);

  operator void*() const;  // NOLINT(google-explicit-constructor): the raw handle that buffers take

 private:
  struct Handle;
  std::shared_ptr<Handle> handle_;
};

}  // namespace xrt
