// Collects what the library logs while it is alive.
#pragma once

#include <glog/logging.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace qx {
namespace testing {

class LogCapture : public google::LogSink {
 public:
  // `verbosity` is the VLOG level in force for the lifetime of the capture.
  explicit LogCapture(int verbosity = 0);
  ~LogCapture() override;
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Texts so far, in order: of one severity (google::INFO holds the VLOG lines too), or of all.
  std::vector<std::string> Messages(google::LogSeverity severity = kEverySeverity) const;

  void send(google::LogSeverity severity, const char* full_filename, const char* base_filename,
            int line, const struct ::tm* tm_time, const char* message,
            std::size_t message_len) override;

 private:
  static constexpr google::LogSeverity kEverySeverity = -1;
  struct Line {
    google::LogSeverity severity;
    std::string text;
  };
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
  int old_verbosity_;
};

}  // namespace testing
}  // namespace qx
