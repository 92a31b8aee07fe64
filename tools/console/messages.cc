#include "tools/console/messages.h"

#include <glog/logging.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <regex>

namespace qx::tools {
namespace {

constexpr std::size_t kBarWidth = 40;      // columns
constexpr char kClearLine[] = "\r\033[K";  // to the line's start; clear to its end

// Shows what the user must know while the rest of the library's log is hidden.
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

// Never destroyed: threads of the library may log until the process ends.
Warnings& TheWarnings() {
  static auto* const warnings = new Warnings;
  return *warnings;
}

std::string Bar(std::size_t done, std::size_t total) {
  const std::size_t filled = std::min(done, total) * kBarWidth / total;
  return '[' + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] ";
}

// Returns: "75 s", "2:05 min" or "1:00:07 h".
std::string Duration(double seconds) {
  const long all = std::lround(std::min(seconds, 1e7));
  if (all < 100) return std::to_string(all) + " s";
  char text[32];
  if (all < 3600) {
    std::snprintf(text, sizeof(text), "%ld:%02ld min", all / 60, all % 60);
  } else {
    std::snprintf(text, sizeof(text), "%ld:%02ld:%02ld h", all / 3600, all / 60 % 60, all % 60);
  }
  return text;
}

}  // namespace

void PrintMessage(const std::string& text) {
  std::string line = WithoutPasswords(text);
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  const char* const clear = isatty(STDERR_FILENO) != 0 ? kClearLine : "";  // a progress line
  std::fprintf(stderr, "%sqxtools: %s\n", clear, line.c_str());
}

void PrintWarning(const std::string& text) { PrintMessage("warning: " + text); }

void PrintDamage(const std::string& input, std::size_t damaged, std::size_t pictures) {
  PrintWarning("'" + input + "': " + std::to_string(damaged) + " of " + Count(pictures, "picture") +
               (damaged == 1 ? " is" : " are") +
               " damaged; pictures predicted from them may be damaged too");
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
}

void ShowLibraryLog() {
  google::RemoveLogSink(&TheWarnings());
  FLAGS_logtostderr = true;
  FLAGS_minloglevel = google::GLOG_INFO;
  FLAGS_v = 1;
}

void PrintReport(const nlohmann::ordered_json& report, bool json) {
  if (json) {
    // JSON is UTF-8; file names need not be.
    std::cout << report.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    return;
  }
  for (const auto& [key, value] : report.items()) {
    const std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    std::cout << key << ": " << text << '\n';
  }
}

Progress::Progress(std::size_t total) : total_(total), is_terminal_(isatty(STDERR_FILENO) != 0) {}

Progress::~Progress() {
  if (is_terminal_) std::fputs(kClearLine, stderr);
}

void Progress::Update(std::size_t done) {
  const auto now = Clock::now();
  if (!is_terminal_ || now < next_) return;
  next_ = now + kInterval;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const double rate = static_cast<double>(done) / std::max(seconds, 1e-3);
  std::string line =
      total_ == 0 ? Count(done, "picture")
                  : Bar(done, total_) + std::to_string(done) + " of " + Count(total_, "picture");
  char speed[32];
  std::snprintf(speed, sizeof(speed), ", %.1f/s", rate);
  line += speed;
  if (done < total_) line += ", " + Duration(static_cast<double>(total_ - done) / rate) + " left";
  std::fprintf(stderr, "%s%s", kClearLine, line.c_str());
}

}  // namespace qx::tools
