// Control of the emulated board: what the correlation functions run on when the library was built
// with the emulated device runtime, as it is by default. docs/fpga.md describes the board.
//
// On first use the log has one WARNING line, that no real board is used. A process that has called
// SetSettings() or has a QXTOOLS_BOARD_ variable in its environment knows, and gets none.
//
// In a library built for a real board IsEmulated() returns false and everything else throws
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

// Shape of the feature maps and of the cost volume that a kernel is built for. As in hardware, it
// is fixed in the container: no register carries it.
struct Geometry {
  std::uint32_t height = 96;  // rows
  std::uint32_t width = 320;  // columns
  std::uint32_t channels = 32;
  std::uint32_t disparities = 48;
};

struct Settings {
  Geometry geometry;                      // of the built-in container, from its next load on
  std::chrono::microseconds run_time{0};  // a run takes at least this long
  std::uint32_t end_value = 6;            // control word after a run that succeeded; not 1
  // The register write that starts a run returns when the run has ended, so that the first look at
  // the control word finds it over.
  bool ends_at_once = false;
};

// The settings start from the environment: QXTOOLS_BOARD_GEOMETRY ("96x320x32x48": height, width,
// channels, disparities) and QXTOOLS_BOARD_RUN_TIME_US.
[[nodiscard]] QXTOOLS_EXPORT Settings GetSettings();

// Errors: std::invalid_argument, and nothing changes, when a dimension is zero, the built-in
//         container has no memory for the buffers of that geometry (768 MiB for both inputs, 512
//         MiB for the output), run_time is negative or end_value is 1.
QXTOOLS_EXPORT void SetSettings(const Settings& settings);

struct MemoryGroup {
  std::uint32_t group;
  std::uint64_t base;  // physical address
  std::uint64_t size;  // bytes
};

struct Status {
  std::string container;  // path of the loaded container; empty before the first load
  bool built_in = false;  // the container is the built-in one, no file was read
  Geometry geometry;      // of the loaded container
  std::vector<MemoryGroup> memory;
  unsigned open_units = 0;         // kernel handles now open
  std::size_t buffers = 0;         // device buffers now allocated
  std::uint64_t buffer_bytes = 0;  // and their size
  bool running = false;            // the kernel works on a run
  std::uint64_t runs = 0;          // runs ended since the process began, failed ones included
  // Time spent since the process began, for measuring the host's own share of a run.
  std::chrono::nanoseconds kernel_time{0};    // between noticing a start and ending that run
  std::chrono::nanoseconds transfer_time{0};  // in buffer copies and synchronisations
};
[[nodiscard]] QXTOOLS_EXPORT Status GetStatus();

// Makes the `nth` use of a call, counted from now, fail once. The environment variable
// QXTOOLS_BOARD_FAULTS ("xrt::bo::sync@2,unit.hang") does the same from the start.
//
// A call of the device runtime fails by throwing std::runtime_error, "open" with EACCES, "mmap"
// with EPERM, "nanosleep" by being interrupted half way. "unit.hang" makes the run never end,
// "unit.error" makes it end at once with an error value and no output. The functions of
// fpga_correlation.h cannot tell that end from a good one: they return, and the output frame holds
// what its buffer held before, such as the previous run's costs. Only the log has an ERROR line.
// Errors: std::invalid_argument when FaultNames() does not list `name`, or `nth` is 0.
QXTOOLS_EXPORT void FailCall(const std::string& name, unsigned nth = 1);

// Forgets all faults. Returns: how many of them had not happened yet.
QXTOOLS_EXPORT std::size_t ClearFaults();

[[nodiscard]] QXTOOLS_EXPORT std::vector<std::string> FaultNames();

// Ends the run that a "unit.hang" holds up, with its normal result. Without one it does nothing.
QXTOOLS_EXPORT void EndHungRun();

// One call of the device runtime or of the register device, or the release of one of its objects.
struct Call {
  // As in FaultNames(). Besides, "load" and "store" are accesses to the mapped registers,
  // "unit.start" and "unit.end" the two ends of a run; "munmap", "close" and names of destructors
  // are releases.
  std::string name;
  std::string detail;  // arguments; a device buffer is named by its address
};

// Starts an empty recording. A recording grows with every call until it is taken.
QXTOOLS_EXPORT void StartRecording();
// Stops the recording. Returns: its calls, oldest first.
[[nodiscard]] QXTOOLS_EXPORT std::vector<Call> TakeRecording();

// Checks the text of a container file without loading it.
// Errors: std::runtime_error that says what is wrong with it.
QXTOOLS_EXPORT void CheckContainer(const std::string& text);

}  // namespace qx::emulated_board
