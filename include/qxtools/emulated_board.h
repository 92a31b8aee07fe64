// Control of the emulated board, on which the correlation functions run in a library built with the
// emulated device runtime (the default). docs/fpga.md describes the board.
//
// On first use a WARNING in the log says that no real board is used. It is omitted in a process
// that has called SetSettings() or has a QXTOOLS_BOARD_ variable in its environment.
//
// In a library built for a real board IsEmulated() returns false, and all other functions throw
// std::logic_error.
//
// Threads: every function may be called from any thread at any time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qxtools/export.h"

namespace qx::emulated_board {

QXTOOLS_EXPORT bool IsEmulated();

// The shape of feature maps and cost volume that a kernel is built for. As in hardware, it is part
// of the container: no register carries it.
struct Geometry {
  std::uint32_t height = 96;  // rows
  std::uint32_t width = 320;  // columns
  std::uint32_t channels = 32;
  std::uint32_t disparities = 48;
};

struct Settings {
  Geometry geometry;                      // of the built-in container when it is loaded next
  std::chrono::microseconds run_time{0};  // a run takes at least this long
  std::uint32_t end_value = 6;            // control word after a run that succeeded; not 1
  // The register write that starts a run returns when the run has ended, so the first read of the
  // control word finds it finished.
  bool ends_at_once = false;
};

// The initial settings come from the environment: QXTOOLS_BOARD_GEOMETRY ("96x320x32x48": height,
// width, channels, disparities) and QXTOOLS_BOARD_RUN_TIME_US.
[[nodiscard]] QXTOOLS_EXPORT Settings GetSettings();

// Errors: std::invalid_argument, with nothing changed, if a dimension is zero, the buffers of that
//         geometry do not fit the built-in container's memory (768 MiB for both inputs, 512 MiB for
//         the output), run_time is negative or end_value is 1.
QXTOOLS_EXPORT void SetSettings(const Settings& settings);

struct MemoryGroup {
  std::uint32_t group;
  std::uint64_t base;  // physical address
  std::uint64_t size;  // bytes
};

struct Status {
  std::string container;  // path of the loaded container, empty before the first load
  bool built_in = false;  // the container is the built-in one; no file was read
  Geometry geometry;      // of the loaded container
  std::vector<MemoryGroup> memory;
  unsigned open_units = 0;         // open kernel handles
  std::size_t buffers = 0;         // allocated device buffers
  std::uint64_t buffer_bytes = 0;  // their total size
  bool running = false;            // a run is in progress
  std::uint64_t runs = 0;          // finished runs of this process, including failed ones
  // Accumulated times, for measuring the host's share of a run.
  std::chrono::nanoseconds kernel_time{0};    // from noticing a start to ending the run
  std::chrono::nanoseconds transfer_time{0};  // in buffer copies and synchronisations
};
[[nodiscard]] QXTOOLS_EXPORT Status GetStatus();

// Makes the `nth` use of a call, counted from now, fail once. The environment variable
// QXTOOLS_BOARD_FAULTS ("xrt::bo::sync@2,unit.hang") does the same from the start of the process.
//
// A call of the device runtime fails by throwing std::runtime_error, "open" with EACCES, "mmap"
// with EPERM, "nanosleep" by being interrupted halfway. "unit.hang" makes a run never end;
// "unit.error" ends it at once with an error value and no output. The functions of
// fpga_correlation.h do not see that error: they return, and the output frame holds what its buffer
// held before, such as the costs of the previous run. Only an ERROR line in the log reports it.
// Errors: std::invalid_argument if FaultNames() does not list `name`, or `nth` is 0.
QXTOOLS_EXPORT void FailCall(const std::string& name, unsigned nth = 1);

// Cancels all faults. Returns: how many of them had not happened yet.
QXTOOLS_EXPORT std::size_t ClearFaults();

[[nodiscard]] QXTOOLS_EXPORT std::vector<std::string> FaultNames();

// Ends a run that hangs because of "unit.hang", with its normal result; otherwise does nothing.
QXTOOLS_EXPORT void EndHungRun();

// One call of the device runtime or the register device, or the release of one of their objects.
struct Call {
  // One of FaultNames(), or: "load" and "store" for accesses to the mapped registers, "unit.start"
  // and "unit.end" for a run, and "munmap", "close" and names of destructors for releases.
  std::string name;
  std::string detail;  // arguments; a device buffer appears as its address
};

// Starts a new recording, which grows with every call until it is taken.
QXTOOLS_EXPORT void StartRecording();
// Stops the recording. Returns: its calls, oldest first.
[[nodiscard]] QXTOOLS_EXPORT std::vector<Call> TakeRecording();

// Checks the text of a container file without loading it.
// Errors: std::runtime_error with the reason.
QXTOOLS_EXPORT void CheckContainer(const std::string& text);

}  // namespace qx::emulated_board
