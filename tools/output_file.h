// A file that appears under its name only when it is complete.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <string>
#include <vector>

namespace qx::tools {

// Writes to a temporary file in the target's folder and renames it in Commit(). Without Commit(),
// and when SIGINT, SIGTERM or SIGHUP ends the program, nothing is left behind and an older file of
// that name stays as it was. "-" (standard output) and devices are written straight.
//
// Errors:  std::system_error that names the file and the reason.
// Threads: one object is used by one thread at a time.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  // Writes the pieces one after the other. Cost: one system call for a thousand pieces.
  void Write(std::vector<iovec> pieces);
  void Write(const void* data, std::size_t size);

  // Closes the file and gives it its name.
  void Commit();

 private:
  [[noreturn]] void Fail() const;
  void CreateTemporary();
  void CloseFile();

  std::string path_;
  std::string temporary_;  // empty when the target is written straight
  int descriptor_ = -1;
};

}  // namespace qx::tools
