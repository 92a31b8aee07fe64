#include "tools/console/library_errors.h"

namespace qx::tools {

void LibraryErrors::send(google::LogSeverity severity, const char* /*path*/, const char* /*file*/,
                         int /*line*/, const std::tm* /*time*/, const char* message,
                         std::size_t size) {
  if (severity == google::GLOG_ERROR && text_.empty()) text_.assign(message, size);
}

}  // namespace qx::tools
