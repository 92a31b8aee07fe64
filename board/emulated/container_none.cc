// Replaces container_json.cc in a build without container files.
#include <stdexcept>

#include "board/emulated/container.h"

namespace qx::board {

Container ReadContainer(const std::string& /*text*/) {
  throw std::runtime_error(
      "this library was built without support for container files (QXTOOLS_CONTAINER_FILES)");
}

}  // namespace qx::board
