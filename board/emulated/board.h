// The emulated board: its device, the loaded container, the compute unit and its handles.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "board/emulated/call_log.h"
#include "board/emulated/compute_unit.h"
#include "board/emulated/container.h"
#include "board/emulated/physical_memory.h"
#include "qxtools/emulated_board.h"

namespace qx::board {

// Threads: safe from any thread. Failures are std::runtime_error.
class Board {
 public:
  // The one board of the process, created on first use and never destroyed.
  static Board& Get();

  CallLog& log() { return log_; }
  PhysicalMemory& memory() { return memory_; }
  ComputeUnit& unit() { return unit_; }

  emulated_board::Settings settings() const;
  void SetSettings(const emulated_board::Settings& settings);
  emulated_board::Status GetStatus() const;
  void AddTransferTime(std::chrono::nanoseconds time) { transfer_ns_ += time.count(); }

  // Loads the container at `path`. Returns: its number, which is the same while it stays loaded.
  std::uint64_t Load(const std::string& path);
  // The loaded container. Throws before the first load.
  std::shared_ptr<const Container> container() const;

  // Opens a handle of the unit `name` of container number `id`.
  void OpenUnit(std::uint64_t id, const std::string& name, bool exclusive);
  void CloseUnit(bool exclusive);

  std::uint64_t Allocate(std::uint32_t group, std::uint64_t bytes);

 private:
  Board();

  // Warns in the log, once, that no real board is used, unless the process has shown that it knows.
  void TellOnce();
  Container ReadContainer(const std::string& path, bool& built_in) const;

  CallLog log_;
  PhysicalMemory memory_;
  std::atomic<std::int64_t> transfer_ns_{0};
  std::atomic<bool> known_{false};

  mutable std::mutex mutex_;
  emulated_board::Settings settings_;
  std::shared_ptr<const Container> container_;
  std::string path_;
  bool built_in_ = false;
  std::uint64_t id_ = 0;
  unsigned shared_handles_ = 0;
  bool exclusive_handle_ = false;

  ComputeUnit unit_;  // uses the log and the memory
};

}  // namespace qx::board
