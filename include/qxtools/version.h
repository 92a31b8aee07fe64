// The version of the library that is loaded, which may be newer than the headers an application was
// compiled with.
#pragma once

#include "qxtools/export.h"

namespace qx::utils {

// Returns: for example "1.1.0"; valid for the life of the process.
// Threads: safe from any thread.
[[nodiscard]] QXTOOLS_EXPORT const char* Version();

}  // namespace qx::utils
