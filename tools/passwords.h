// Keeps passwords out of what the command writes.
#pragma once

#include <string>

namespace qx {
namespace tools {

// Returns: `text` with "scheme://user@" for every "scheme://user:password@" in it.
std::string WithoutPasswords(const std::string& text);

}  // namespace tools
}  // namespace qx
