// What the library and FFmpeg say on standard error while the command runs.
#pragma once

namespace qx {
namespace tools {

// Keeps everything below a fatal error quiet, so that a failure is one line for the user.
void QuietLibraryLog(const char* program);

// Lets errors, warnings and progress through: verbose level `level` of the library's log.
void ShowLibraryLog(int level);

}  // namespace tools
}  // namespace qx
