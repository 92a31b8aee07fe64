// A board without anything behind it: it writes down what reaches it, in order, and answers as
// told.
#pragma once

#include <chrono>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace qx::testing {

struct DeviceBoard {
  static DeviceBoard& Get() {
    static DeviceBoard& board = *new DeviceBoard;
    return board;
  }

  // Every call of the device runtime or the operating system takes a millisecond, a sleep its
  // length, anything else no time; the clocks of the library under test show this time.
  std::chrono::nanoseconds time{0};
  std::vector<std::string> trace;  // calls, register accesses, and what tests add
  // What the control word reads, one look after the other; the last value stays.
  std::vector<std::uint32_t> words{0};
  std::string failing;          // the call that fails: its line begins with this
  int error = 0;                // its errno, if it has one
  unsigned interrupted = 0;     // sleeps until one is interrupted half way
  unsigned last_offset = 0x64;  // of the register of argument 3
  std::uint32_t page[1024] = {};

  template <typename... Piece>
  void Add(const Piece&... pieces) {
    std::ostringstream line;
    line << std::hex << std::showbase;
    (line << ... << pieces);
    trace.push_back(line.str());
  }
  template <typename... Piece>
  bool CallFails(const Piece&... pieces) {
    Add(pieces...);
    time += std::chrono::milliseconds(1);
    return !failing.empty() && trace.back().compare(0, failing.size(), failing) == 0;
  }
  template <typename... Piece>
  void Call(const Piece&... pieces) {
    if (CallFails(pieces...)) throw std::runtime_error(trace.back());
  }
  std::uint32_t NextWord() {
    const std::uint32_t word = words.front();
    if (words.size() > 1) words.erase(words.begin());
    return word;
  }
};

}  // namespace qx::testing
