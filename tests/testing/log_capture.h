// Collects what the library logs while it is alive.
#pragma once

#include <glog/logging.h>

#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace qx::testing {

// Every line of glog asks the C library for the time zone, which without TZ is read anew under a
// lock that the thread sanitizer cannot see: set once, nothing is read and nothing is reported.
[[maybe_unused]] inline const int kTimeZoneSet = setenv("TZ", "UTC0", 1);

class LogCapture : public google::LogSink {
 public:
  // `verbosity` is the VLOG level in force for the lifetime of the capture.
  explicit LogCapture(int verbosity = 0) : old_verbosity_(std::exchange(FLAGS_v, verbosity)) {
    google::AddLogSink(this);
  }
  ~LogCapture() override {
    google::RemoveLogSink(this);
    FLAGS_v = old_verbosity_;
  }

  // Texts so far, in order: of one severity (google::INFO holds the VLOG lines too), or of all.
  std::vector<std::string> Messages(google::LogSeverity severity = kEverySeverity) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> texts;
    for (const auto& [of, text] : lines_) {
      if (severity == kEverySeverity || of == severity) texts.push_back(text);
    }
    return texts;
  }

  virtual void Take(google::LogSeverity severity, std::string text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(severity, std::move(text));
  }

 private:
  static constexpr google::LogSeverity kEverySeverity = -1;

  void send(google::LogSeverity severity, const char* /*full_filename*/,
            const char* /*base_filename*/, int /*line*/, const struct ::tm* /*tm_time*/,
            const char* message, std::size_t message_len) override {
    Take(severity, std::string(message, message_len));
  }

  mutable std::mutex mutex_;
  std::vector<std::pair<google::LogSeverity, std::string>> lines_;
  int old_verbosity_;
};

}  // namespace qx::testing
