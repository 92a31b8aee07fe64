// The emulated correlation unit: a thread that watches the control word of the unit's registers
// and computes a run whenever the word becomes 1.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "board/emulated/call_log.h"
#include "board/emulated/container.h"
#include "board/emulated/physical_memory.h"

namespace qx::board {

// Threads: safe from any thread. A unit that has been programmed must not be destroyed: its thread
//          watches until the process ends.
class ComputeUnit {
 public:
  ComputeUnit(PhysicalMemory& memory, CallLog& log) : memory_(memory), log_(log) {}
  ComputeUnit(const ComputeUnit&) = delete;
  ComputeUnit& operator=(const ComputeUnit&) = delete;

  // Becomes the unit of `container` with cleared registers; abandons a run in progress.
  void Program(const Container& container);
  void Configure(const emulated_board::Settings& settings);

  // The thread watches while handles of the unit are open, and sleeps while there are none.
  void Attach();
  void Detach();

  // Announces a run: for a moment the thread polls without sleeping, as hardware does.
  void ExpectStart();

  // Must be called after each store to the control word. With Settings::ends_at_once it waits for
  // the end of a started run, except one that hangs.
  void AfterControlStore();

  std::uint32_t ReadRegister(std::uint32_t offset) const;
  void WriteRegister(std::uint32_t offset, std::uint32_t value);

  void EndHungRun();

  struct Statistics {
    unsigned handles = 0;
    bool running = false;
    std::uint64_t runs = 0;
    std::chrono::nanoseconds kernel_time{0};
  };
  Statistics GetStatistics() const;

 private:
  using Lock = std::unique_lock<std::mutex>;
  using Clock = std::chrono::steady_clock;

  struct Unmapper {
    void operator()(volatile std::uint32_t* registers) const;
  };

  // The argument registers at the start of a run.
  struct Job {
    std::uint32_t left, right, output, exponent;
  };

  void ReserveMemory(const emulated_board::Geometry& geometry);
  void Watch();
  void Rest(Lock& lock);
  void Run(Lock& lock);
  Job LatchJob() const;
  bool Compute(const Job& job);
  void FinishRun(const Job& job, bool computed);
  bool HasStarted() const;
  volatile std::uint32_t* Register(std::uint32_t offset) const;

  PhysicalMemory& memory_;
  CallLog& log_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::unique_ptr<volatile std::uint32_t, Unmapper> registers_;
  Container container_;
  // The unit's own memory, kept between runs: returning big blocks to the system after each run
  // would slow down the application's threads. Used by the unit's thread during a run, otherwise
  // under the mutex.
  std::vector<std::int8_t> left_, right_, cost_;
  emulated_board::Settings settings_;
  bool abandon_ = false;  // the run in progress must end without a result
  bool hung_ = false;     // the run in progress waits for EndHungRun()
  Clock::time_point alert_until_;
  Statistics statistics_;
  bool watched_ = false;  // the thread has been started
};

}  // namespace qx::board
