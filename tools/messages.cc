#include "tools/messages.h"

#include <glog/logging.h>
#include <unistd.h>

#include <cstdio>
#include <regex>

extern "C" {
#include <libavutil/log.h>
}

namespace qx::tools {
namespace {

// Shows what the user has to know of the library's log while the rest is not shown.
class Warnings : public google::LogSink {
 public:
  void send(google::LogSeverity severity, const char* /*path*/, const char* /*file*/, int /*line*/,
            const std::tm* /*time*/, const char* message, std::size_t size) override {
    const std::string text(message, size);
    if (severity == google::GLOG_ERROR && text.find("QXTOOLS_") != std::string::npos) {
      PrintWarning(text);
    }
  }
};

// Never destroyed: threads of the library may log as long as the process lives.
Warnings& TheWarnings() {
  static auto* const warnings = new Warnings;
  return *warnings;
}

}  // namespace

void PrintMessage(const std::string& text) {
  std::string line = WithoutPasswords(text);
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  // A progress line may stand there.
  const char* const clear = isatty(STDERR_FILENO) != 0 ? "\r\033[K" : "";
  std::fprintf(stderr, "%sqxtools: %s\n", clear, line.c_str());
}

void PrintWarning(const std::string& text) { PrintMessage("warning: " + text); }

void PrintDamage(const std::string& input, std::size_t damaged, std::size_t pictures) {
  PrintWarning("'" + input + "': " + std::to_string(damaged) + " of " + Count(pictures, "picture") +
               (damaged == 1 ? " is" : " are") + " damaged; those predicted from them may be, too");
}

std::string WithoutPasswords(const std::string& text) {
  // As FFmpeg reads a URL: user and password end at the last @ before the path.
  static const std::regex kPassword("(://[^/?#:]*):[^/?#]*@");
  return std::regex_replace(text, kPassword, "$1@");
}

std::string Count(std::size_t number, const std::string& noun) {
  return std::to_string(number) + ' ' + noun + (number == 1 ? "" : "s");
}

void QuietLibraryLog(const char* program) {
  google::InitGoogleLogging(program);
  // Only what ends the process goes to standard error, nothing goes to log files.
  for (int severity = google::GLOG_INFO; severity < google::NUM_SEVERITIES; ++severity) {
    google::SetLogDestination(severity, "");
  }
  google::SetStderrLogging(google::GLOG_FATAL);
  FLAGS_minloglevel = google::GLOG_ERROR;
  google::AddLogSink(&TheWarnings());
  av_log_set_level(AV_LOG_QUIET);
}

void ShowLibraryLog(int level) {
  google::RemoveLogSink(&TheWarnings());
  FLAGS_logtostderr = true;
  FLAGS_minloglevel = google::GLOG_INFO;
  FLAGS_v = level;
  av_log_set_level(level > 1 ? AV_LOG_VERBOSE : AV_LOG_WARNING);
}

}  // namespace qx::tools
