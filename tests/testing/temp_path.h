// Names of temporary files: tests run beside each other.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace qx::testing {

// A path of this process's own in the folder for temporary files; its name ends with `name`.
inline std::string TempPath(const std::string& name) {
  return ::testing::TempDir() + "qxtools-" + std::to_string(getpid()) + "-" + name;
}

}  // namespace qx::testing
