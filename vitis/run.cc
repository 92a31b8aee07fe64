#include "vitis/run.h"

#include <glog/logging.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <exception>
#include <string>

#include "board/board_interface.h"
#include "qxtools/fpga_correlation.h"

namespace qx::utils::image {
namespace {

constexpr std::chrono::milliseconds kDefaultTimeLimit{10000};
std::atomic<std::chrono::milliseconds::rep> g_time_limit_ms{kDefaultTimeLimit.count()};

}  // namespace

KernelTimeout::~KernelTimeout() = default;

void SetKernelTimeLimit(std::chrono::milliseconds limit) { g_time_limit_ms = limit.count(); }

std::chrono::milliseconds KernelTimeLimit() { return std::chrono::milliseconds(g_time_limit_ms); }

}  // namespace qx::utils::image

namespace qx::utils::image::correlation {
namespace {

constexpr std::uint32_t kControlOffset = 0x00;
constexpr std::uint32_t kRunning = 1;  // control word: starts a run, and stays until it has ended

bool IsRunning(Registers& registers) { return registers.Load(kControlOffset) == kRunning; }

// Whether the kernel runs; true when its registers cannot be read.
bool MayRun(Registers& registers) {
  try {
    return IsRunning(registers);
  } catch (const std::exception&) {
    return true;
  }
}

// The buffers of a run that was given up, until RequireIdle() releases them. Never destroyed: at
// the end of the process the kernel may still use them. No lock: runs do not overlap. Its memory is
// allocated by RequireIdle(), before each run, so that Keep() cannot fail.
Buffers& KeptBuffers() {
  static Buffers& kept = *new Buffers;
  return kept;
}

void Keep(const Buffers& buffers) {
  KeptBuffers() = buffers;  // before the log line, which may run out of memory
  const std::size_t bytes = buffers.left->size() + buffers.right->size() + buffers.output->size();
  LOG(ERROR) << "the correlation kernel is still running: its buffers, " << bytes
             << " bytes, are kept until the next run finds it idle";
}

void SleepFor(std::chrono::nanoseconds interval) {
  std::timespec request{};
  request.tv_nsec = static_cast<long>(interval.count());
  std::timespec remaining{};
  while (board::Sleep(&request, &remaining) != 0 && errno == EINTR) request = remaining;
}

void StartAndWait(Registers& registers, std::chrono::nanoseconds interval) {
  using Clock = std::chrono::steady_clock;
  registers.Store(kControlOffset, kRunning);
  const std::chrono::milliseconds limit = KernelTimeLimit();
  const Clock::time_point start = Clock::now();
  while (true) {
    // Milliseconds, because the largest limit would overflow as nanoseconds. The time is taken
    // before the control word is read: a process that was suspended for longer than the limit reads
    // it once more before it gives up.
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    if (!IsRunning(registers)) return;
    if (waited >= limit) {
      throw KernelTimeout("the correlation kernel did not finish within " +
                          std::to_string(limit.count()) + " ms");
    }
    SleepFor(interval);
  }
}

}  // namespace

void RequireIdle(Registers& registers) {
  if (IsRunning(registers)) {
    throw KernelTimeout("the correlation kernel is still busy with an earlier run");
  }
  KeptBuffers() = {};
}

void Run(Registers& registers, const Buffers& buffers, const Arguments& arguments,
         std::chrono::nanoseconds interval) {
  registers.StoreArguments(arguments);
  try {
    StartAndWait(registers, interval);
  } catch (...) {
    if (MayRun(registers)) Keep(buffers);
    throw;
  }
}

double MillisecondsSince(SystemTime start) {
  const std::chrono::nanoseconds time = std::chrono::system_clock::now() - start;
  return static_cast<double>(time.count()) / 1e9 * 1000.0;
}

}  // namespace qx::utils::image::correlation
