#include "board/emulated/call_log.h"

#include <algorithm>
#include <stdexcept>

namespace qx::board {

bool CallLog::Fails(const char* name, const std::string& detail) {
  Note(name, detail);
  return IsFaultDue(name);
}

bool CallLog::IsFaultDue(const char* name) {
  const std::lock_guard<std::mutex> lock(mutex_);
  bool due = false;
  for (Fault& fault : faults_) {
    if (fault.name == name && --fault.uses_left == 0) due = true;
  }
  faults_.erase(std::remove_if(faults_.begin(), faults_.end(),
                               [](const Fault& fault) { return fault.uses_left == 0; }),
                faults_.end());
  return due;
}

void CallLog::Note(const char* name, const std::string& detail) {
  if (!recording_) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  calls_.push_back({name, detail});
}

void CallLog::Inject(const std::string& name, unsigned nth) {
  const std::vector<std::string> names = FaultNames();
  if (std::find(names.begin(), names.end(), name) == names.end()) {
    std::string known;
    for (const std::string& each : names) known += ' ' + each;
    throw std::invalid_argument("unknown fault '" + name + "'; known are:" + known);
  }
  if (nth == 0) throw std::invalid_argument("uses of a call are counted from 1");
  const std::lock_guard<std::mutex> lock(mutex_);
  faults_.push_back({name, nth});
}

std::size_t CallLog::ClearFaults() {
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::size_t count = faults_.size();
  faults_.clear();
  return count;
}

void CallLog::Start() {
  const std::lock_guard<std::mutex> lock(mutex_);
  calls_.clear();
  recording_ = true;
}

std::vector<emulated_board::Call> CallLog::Take() {
  const std::lock_guard<std::mutex> lock(mutex_);
  recording_ = false;
  return std::move(calls_);
}

std::vector<std::string> FaultNames() {
  return {"xrt::device::device",
          "xrt::device::load_xclbin",
          "xrt::kernel::kernel",
          "xrt::kernel::group_id",
          "xrt::kernel::offset",
          "xrt::kernel::write_register",
          "xrt::kernel::read_register",
          "xrt::bo::bo",
          "xrt::bo::address",
          "xrt::bo::write",
          "xrt::bo::read",
          "xrt::bo::sync",
          "xir::XrtDeviceHandle::get_instance",
          "xir::XrtDeviceHandle::get_physical_base_address",
          "open",
          "mmap",
          "nanosleep",
          "unit.hang",
          "unit.error"};
}

}  // namespace qx::board
