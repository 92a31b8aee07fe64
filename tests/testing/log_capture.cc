#include "tests/testing/log_capture.h"

#include <cstdlib>

namespace qx {
namespace testing {
namespace {

// Every line of glog asks the C library for the time zone, which without TZ is read anew under a
// lock that the thread sanitizer cannot see: set once, nothing is read and nothing is reported.
[[maybe_unused]] const int kTimeZoneSet = setenv("TZ", "UTC0", 1);

}  // namespace

LogCapture::LogCapture(int verbosity) : old_verbosity_(FLAGS_v) {
  FLAGS_v = verbosity;
  google::AddLogSink(this);
}

LogCapture::~LogCapture() {
  google::RemoveLogSink(this);
  FLAGS_v = old_verbosity_;
}

std::vector<std::string> LogCapture::Messages(google::LogSeverity severity) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> texts;
  for (const Line& line : lines_) {
    if (severity == kEverySeverity || line.severity == severity) texts.push_back(line.text);
  }
  return texts;
}

void LogCapture::send(google::LogSeverity severity, const char* /*full_filename*/,
                      const char* /*base_filename*/, int /*line*/, const struct ::tm* /*tm_time*/,
                      const char* message, std::size_t message_len) {
  const std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back({severity, std::string(message, message_len)});
}

}  // namespace testing
}  // namespace qx
