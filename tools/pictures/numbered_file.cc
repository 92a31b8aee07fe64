#include "tools/pictures/numbered_file.h"

#include <array>
#include <cstdio>
#include <filesystem>

namespace qx::tools {

void WriteNumbered(const std::string& directory, const char* stem, std::size_t number,
                   const char* ending, const std::function<void(OutputFile&)>& write) {
  std::array<char, 48> name = {};
  std::snprintf(name.data(), name.size(), "%s-%04zu", stem, number);
  OutputFile file((std::filesystem::path(directory) / name.data()).string() + ending);
  write(file);
  file.Commit();
}

}  // namespace qx::tools
