// The calls that reach the emulated board: faults injected into them, and their recording.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "qxtools/emulated_board.h"

namespace qx::board {

// Threads: safe from any thread.
class CallLog {
 public:
  // Notes a call that cannot fail.
  void Note(const char* name, const std::string& detail);

  // Counts one use of `name`. Returns: whether it must fail.
  [[nodiscard]] bool IsFaultDue(const char* name);

  // Notes one use of a call and counts it. Returns: whether it must fail.
  [[nodiscard]] bool Fails(const char* name, const std::string& detail);

  void Inject(const std::string& name, unsigned nth);
  std::size_t ClearFaults();

  void Start();
  std::vector<emulated_board::Call> Take();
  bool recording() const { return recording_; }  // whether composing a detail is worthwhile

 private:
  struct Fault {
    std::string name;
    unsigned uses_left;
  };

  mutable std::mutex mutex_;
  std::vector<Fault> faults_;
  std::atomic<bool> recording_{false};
  std::vector<emulated_board::Call> calls_;
};

std::vector<std::string> FaultNames();

}  // namespace qx::board
