// What the command writes to the terminal: messages, a progress line, reports.
#pragma once

#include <chrono>
#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace qx::tools {

// Prints "qxtools: TEXT" on standard error as one line, without passwords.
void PrintMessage(const std::string& text);

// Prints "qxtools: warning: TEXT" likewise.
void PrintWarning(const std::string& text);

// Warns that `damaged` of `pictures` pictures of an input contain concealed errors.
void PrintDamage(const std::string& input, std::size_t damaged, std::size_t pictures);

// Returns: `text` with "scheme://user@" for every "scheme://user:password@" in it.
std::string WithoutPasswords(const std::string& text);

// Returns: "1 picture", "2 pictures" and so on for the noun "picture".
std::string Count(std::size_t number, const std::string& noun);

// Hides the library's log, so that a failure is one line. Only the reasons why a QXTOOLS_* variable
// is ignored are shown, as warnings.
void QuietLibraryLog(const char* program);

// Shows errors, warnings and the first level of verbose messages of the library's log.
void ShowLibraryLog();

// Prints an object's fields on standard output: as "key: value" lines, or as JSON.
void PrintReport(const nlohmann::ordered_json& report, bool json);

// A line on standard error: how many are done, how many per second and how long the rest takes.
// Nothing is shown unless standard error is a terminal.
class Progress {
 public:
  // Inputs: total  how many there will be; 0 when unknown.
  explicit Progress(std::size_t total);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Removes the line.
  ~Progress();

  // Redraws the line at most ten times a second.
  void Update(std::size_t done);

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kInterval{100};

  std::size_t total_;
  bool is_terminal_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point next_ = start_ + kInterval;
};

}  // namespace qx::tools
