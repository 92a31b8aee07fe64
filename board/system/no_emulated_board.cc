// qxtools/emulated_board.h in a library for a real board: every request is refused.
#include "qxtools/emulated_board.h"

#include <stdexcept>

namespace qx::emulated_board {
namespace {

[[noreturn]] void Refuse() {
  throw std::logic_error("this qxtools was built for a real board and has no emulated one");
}

}  // namespace

bool IsEmulated() { return false; }
Settings GetSettings() { Refuse(); }
void SetSettings(const Settings& /*settings*/) { Refuse(); }
Status GetStatus() { Refuse(); }
void FailCall(const std::string& /*name*/, unsigned /*nth*/) { Refuse(); }
std::size_t ClearFaults() { Refuse(); }
std::vector<std::string> FaultNames() { Refuse(); }
void EndHungRun() { Refuse(); }
void StartRecording() { Refuse(); }
std::vector<Call> TakeRecording() { Refuse(); }
void CheckContainer(const std::string& /*text*/) { Refuse(); }

}  // namespace qx::emulated_board
