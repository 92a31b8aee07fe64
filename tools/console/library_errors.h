// What the library logs while an operation runs, for the message about its failure.
#pragma once

#include <glog/logging.h>

#include <cstddef>
#include <ctime>
#include <string>

namespace qx::tools {

// Remembers the first line at ERROR since its construction. The line says why an operation that
// reports failure by an empty result has failed.
//
// Threads: the library's lines may come from any thread; Text() is for the one that called it.
class LibraryErrors : public google::LogSink {
 public:
  LibraryErrors() { google::AddLogSink(this); }
  LibraryErrors(const LibraryErrors&) = delete;
  LibraryErrors& operator=(const LibraryErrors&) = delete;
  ~LibraryErrors() override { google::RemoveLogSink(this); }

  // Returns: the line; empty when nothing was logged.
  const std::string& Text() const { return text_; }

  void send(google::LogSeverity severity, const char* path, const char* file, int line,
            const std::tm* time, const char* message, std::size_t size) override;

 private:
  std::string text_;
};

}  // namespace qx::tools
