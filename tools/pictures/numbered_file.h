// One file of a sequence.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "tools/pictures/output_file.h"

namespace qx::tools {

// Writes "<stem>-<number, four digits or more><ending>" into a directory.
// Errors: those of OutputFile and of `write`.
void WriteNumbered(const std::string& directory, const char* stem, std::size_t number,
                   const char* ending, const std::function<void(OutputFile&)>& write);

}  // namespace qx::tools
