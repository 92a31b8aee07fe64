// Output that appears only when it is complete.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace qx::tools {

// Writes to a temporary file in the target's directory and renames it in Commit(). Without
// Commit(), and when SIGINT, SIGTERM or SIGHUP ends the program, the temporary file is removed and
// an existing file of that name is left untouched. "-" (standard output) and devices are written
// directly.
//
// Errors:  std::system_error that names the file and the reason.
// Threads: one object is used by one thread at a time. It should be the main one, to which Linux
//          delivers the three signals: their handler reads what this thread frees.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  // Writes the pieces one after the other, a thousand per system call.
  void Write(std::vector<iovec> pieces);
  void Write(const void* data, std::size_t size);

  // Closes the file and gives it its name.
  void Commit();

 private:
  [[noreturn]] void Fail() const;
  void CreateTemporary();
  void CloseFile();

  std::string path_;
  std::string temporary_;  // empty when the target is written directly
  int descriptor_ = -1;
};

// A directory for results. When a run fails, the directories that were created here and are still
// empty are removed again.
class OutputDirectory {
 public:
  explicit OutputDirectory(const std::string& path) : path_(path) {}
  OutputDirectory(const OutputDirectory&) = delete;
  OutputDirectory& operator=(const OutputDirectory&) = delete;
  ~OutputDirectory();

  // Creates it and its parents unless it exists.
  // Errors: std::system_error that names the directory and the reason.
  void Create();

 private:
  std::filesystem::path path_;
  std::vector<std::filesystem::path> created_;  // the outermost first
};

}  // namespace qx::tools
