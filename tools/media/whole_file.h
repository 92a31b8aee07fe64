// Files that are read as a whole.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qx::tools {

// Returns: the bytes of a file, a pipe or, for "-", standard input.
// Errors:  std::system_error that names the file and the reason; it is not read past 1 GiB.
std::vector<std::uint8_t> ReadWholeFile(const std::string& path);

}  // namespace qx::tools
