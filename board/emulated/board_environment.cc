#include "board/emulated/board_environment.h"

#include <glog/logging.h>

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "board/emulated/container.h"

namespace qx::board {
namespace {

constexpr char kGeometry[] = "QXTOOLS_BOARD_GEOMETRY";
constexpr char kRunTime[] = "QXTOOLS_BOARD_RUN_TIME_US";
constexpr char kFaults[] = "QXTOOLS_BOARD_FAULTS";

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

void Ignore(const char* name, const std::string& value, const std::string& reason) {
  LOG(ERROR) << "ignoring " << name << "='" << value << "': " << reason;
}

// Takes a decimal number from the front of `text`. Returns: false when there is none.
template <typename Number>
bool TakeNumber(std::string& text, Number& number) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc()) return false;
  text.erase(0, static_cast<std::size_t>(result.ptr - text.data()));
  return true;
}

bool TakeSeparator(std::string& text, char separator) {
  if (text.empty() || text[0] != separator) return false;
  text.erase(0, 1);
  return true;
}

void ReadGeometry(emulated_board::Settings& settings) {
  const std::string value = Variable(kGeometry);
  if (value.empty()) return;
  emulated_board::Geometry g;
  std::string rest = value;
  const bool parsed = TakeNumber(rest, g.height) && TakeSeparator(rest, 'x') &&
                      TakeNumber(rest, g.width) && TakeSeparator(rest, 'x') &&
                      TakeNumber(rest, g.channels) && TakeSeparator(rest, 'x') &&
                      TakeNumber(rest, g.disparities) && rest.empty();
  if (!parsed)
    return Ignore(kGeometry, value,
                  "expected height x width x channels x disparities, such as 96x320x32x48");
  const std::string fault = GeometryFault(BuiltInContainer(g));
  if (!fault.empty()) return Ignore(kGeometry, value, fault);
  settings.geometry = g;
}

void ReadRunTime(emulated_board::Settings& settings) {
  const std::string value = Variable(kRunTime);
  if (value.empty()) return;
  std::uint32_t microseconds = 0;
  std::string rest = value;
  if (!TakeNumber(rest, microseconds) || !rest.empty()) {
    return Ignore(kRunTime, value, "expected a number of microseconds");
  }
  settings.run_time = std::chrono::microseconds(microseconds);
}

}  // namespace

emulated_board::Settings SettingsFromEnvironment() {
  emulated_board::Settings settings;
  ReadGeometry(settings);
  ReadRunTime(settings);
  return settings;
}

void InjectFaultsFromEnvironment(CallLog& log) {
  std::string list = Variable(kFaults);
  while (!list.empty()) {
    const std::string item = list.substr(0, list.find(','));
    list.erase(0, item.size() + 1);
    const std::size_t at = item.find('@');
    std::string count = at == std::string::npos ? "1" : item.substr(at + 1);
    unsigned nth = 0;
    if (!TakeNumber(count, nth) || !count.empty()) {
      Ignore(kFaults, item, "expected a use number after the '@'");
      continue;
    }
    try {
      log.Inject(item.substr(0, at), nth);
    } catch (const std::invalid_argument& error) {
      Ignore(kFaults, item, error.what());
    }
  }
}

bool IsSetInEnvironment() {
  return !(Variable(kGeometry) + Variable(kRunTime) + Variable(kFaults)).empty();
}

}  // namespace qx::board
