// A board without anything behind it: it writes down what reaches it, in order, and answers as
// told.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/testing/log_capture.h"

namespace qx {
namespace testing {

struct DeviceBoard {
  static DeviceBoard& Get();

  // Every call of the device runtime or the operating system takes a millisecond, a sleep its
  // length, anything else no time; the clocks of the library under test show this time.
  std::chrono::nanoseconds time{0};
  std::string trace;  // lines: calls, register accesses, log messages, and what tests add
  // What the control word reads, one look after the other; the last value stays.
  std::vector<std::uint32_t> words{0};
  std::string failing;  // the call that fails: its line begins with this
  int error = 0;        // its errno, if it has one
  unsigned sleeps = 0;
  unsigned interrupted = 0;     // this sleep, counted from 1, is interrupted half way
  unsigned last_offset = 0x64;  // of the register of argument 3
  std::uint32_t page[1024] = {};

  void Add(const std::string& line) { trace += line + '\n'; }
  void Call(const std::string& line);  // throws if it is the one that fails
  bool CallFails(const std::string& line);
  std::uint32_t NextWord();
};

// Puts the library's log, verbose lines included, into the trace.
class TracedLog : public LogCapture {
 public:
  TracedLog() : LogCapture(1) {}
  void send(google::LogSeverity severity, const char* full_filename, const char* base_filename,
            int line, const struct ::tm* tm_time, const char* message,
            std::size_t message_len) override;
};

}  // namespace testing
}  // namespace qx
