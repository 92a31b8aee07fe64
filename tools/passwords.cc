#include "tools/passwords.h"

#include <regex>

namespace qx {
namespace tools {

std::string WithoutPasswords(const std::string& text) {
  // As FFmpeg reads a URL: user and password end at the last @ before the path.
  static const std::regex kPassword("(://[^/?#:]*):[^/?#]*@");
  return std::regex_replace(text, kPassword, "$1@");
}

}  // namespace tools
}  // namespace qx
