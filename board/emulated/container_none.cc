// Stands for the reader of container files where this build has none.
#include <stdexcept>

#include "board/emulated/container.h"

namespace qx::board {

Container ReadContainer(const std::string& /*text*/) {
  throw std::runtime_error(
      "this build reads no container files: the library was configured without "
      "QXTOOLS_CONTAINER_FILES");
}

}  // namespace qx::board
