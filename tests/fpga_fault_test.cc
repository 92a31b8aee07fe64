// What happens when the board, the operating system or the kernel fails.
#include <malloc.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <thread>

#include "tests/testing/fpga_runs.h"
#include "tests/testing/test.h"

namespace qx {
namespace utils {
namespace image {
namespace {

using emulated_board::FailCall;

std::ptrdiff_t EntriesOf(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder), {});
}

// Bytes of the heap in use.
std::size_t HeapBytes() {
#if __GLIBC_PREREQ(2, 33)
  return mallinfo2().uordblks;
#else
  return static_cast<unsigned>(mallinfo().uordblks);
#endif
}

// What a process can leak besides memory that a sanitizer sees: descriptors, threads, mappings of
// the board's memory.
using Resources = std::array<std::ptrdiff_t, 3>;

Resources CountResources() {
  std::ifstream maps("/proc/self/maps");
  std::ptrdiff_t mappings = 0;
  for (std::string line; std::getline(maps, line);) {
    mappings += line.find("qxtools-board") != line.npos ? 1 : 0;
  }
  return {EntriesOf("/proc/self/fd"), EntriesOf("/proc/self/task"), mappings};
}

void ExpectNothingLeft(const Resources& before) {
  const emulated_board::Status status = emulated_board::GetStatus();
  EXPECT_EQ(status.buffers, 0U);
  EXPECT_EQ(status.buffer_bytes, 0U);
  EXPECT_EQ(status.open_units, 0U);
  EXPECT_EQ(CountResources(), before);
}

class FpgaFault : public ::testing::Test {
 protected:
  FpgaFault() { SetKernelTimeLimit(std::chrono::milliseconds(20)); }

  void ExpectGoodRun(Way way) {
    std::fill(maps_.cost.begin(), maps_.cost.end(), 0xA5);
    maps_.Run(way);
    EXPECT_EQ(maps_.cost, maps_.Expected());
  }

  // Runs and returns the error, empty when the run went through.
  template <typename Error>
  std::string ErrorOf(Way way) {
    try {
      maps_.Run(way);
      return "";
    } catch (const Error& error) {
      return error.what();
    }
  }

  std::string Try(Way way, const std::string& call) {
    if (call == "unit.hang") return ErrorOf<KernelTimeout>(way);
    if (call == "open" || call == "mmap") return ErrorOf<std::system_error>(way);
    return ErrorOf<std::runtime_error>(way);
  }

  BoardScope board_;
  StereoMaps maps_{{2, 8, 32, 4}};
};

TEST_F(FpgaFault, EveryUseOfEveryCallCanFailAndNothingIsLeftBehind) {
  for (const Way way : kWays) ExpectGoodRun(way);
  const Resources before = CountResources();
  std::size_t failures[3] = {};
  for (const Way way : kWays) {
    for (const std::string& call : emulated_board::FaultNames()) {
      for (unsigned nth = 1;; ++nth) {
        SCOPED_TRACE(::testing::Message() << NameOf(way) << ": " << call << '@' << nth);
        FailCall(call, nth);
        const std::string error = Try(way, call);
        if (emulated_board::ClearFaults() != 0) break;  // the run has fewer uses of this call
        ++failures[static_cast<int>(way)];
        if (call == "open" || call == "mmap") {
          EXPECT_THAT(error, AllOf(HasSubstr("/dev/mem"), HasSubstr("superuser"),
                                   HasSubstr(call == "open" ? "Permission denied"
                                                            : "Operation not permitted")));
        } else if (call == "unit.hang") {
          EXPECT_THAT(error, HasSubstr("did not end within 20 ms"));
        } else if (call == "unit.error" || call == "nanosleep") {
          EXPECT_EQ(error, "");
        } else {
          EXPECT_THAT(error, HasSubstr(call));
        }
        ExpectNothingLeft(before);
        ExpectGoodRun(way);
      }
    }
  }
  // Uses of calls that can fail in one run, the two of the unit included.
  EXPECT_EQ(failures[0], 28U);
  EXPECT_EQ(failures[1], 26U);
  EXPECT_EQ(failures[2], 31U);
}

TEST_F(FpgaFault, AFailedRunLeavesTheObjectUsable) {
  Kernel_FPGA kernel(0, maps_.input_size(), maps_.output_size());
  for (const char* call :
       {"xrt::bo::write", "xrt::bo::sync", "xrt::kernel::offset", "xrt::bo::read"}) {
    for (const unsigned nth : {1U, 2U}) {
      FailCall(call, nth);
      try {
        maps_.RunOn(kernel);
      } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr(call));
      }
      emulated_board::ClearFaults();
      maps_.RunOn(kernel);
      EXPECT_EQ(maps_.cost, maps_.Expected());
    }
  }
}

TEST_F(FpgaFault, AKernelThatNeverEndsGivesATimeoutUntilItEnds) {
  Kernel_FPGA kernel(0, maps_.input_size(), maps_.output_size());
  FailCall("unit.hang");
  EXPECT_THROW(maps_.RunOn(kernel), KernelTimeout);
  EXPECT_TRUE(emulated_board::GetStatus().running);
  EXPECT_THROW(maps_.RunOn(kernel), KernelTimeout);  // its end would be taken for this run's
  EXPECT_THROW(maps_.Run(Way::kOneShot), KernelTimeout);
  emulated_board::EndHungRun();
  while (emulated_board::GetStatus().running) std::this_thread::yield();
  maps_.RunOn(kernel);
  EXPECT_EQ(maps_.cost, maps_.Expected());
}

// A late kernel finds its output buffer gone: the board reports it and stays usable.
TEST_F(FpgaFault, AKernelThatEndsAfterItsBuffersWereReleasedDoesNoHarm) {
  board_.settings.ends_at_once = false;
  board_.settings.run_time = std::chrono::milliseconds(60);
  board_.Apply();
  for (const Way way : kWays) EXPECT_THROW(maps_.Run(way), KernelTimeout) << NameOf(way);
  board_.settings.run_time = std::chrono::milliseconds(1);
  board_.Apply();
  SetKernelTimeLimit(std::chrono::seconds(10));
  for (const Way way : kWays) ExpectGoodRun(way);
}

TEST_F(FpgaFault, FaultsAreNamedAndCounted) {
  EXPECT_THROW(FailCall("xrt::bo::fly"), std::invalid_argument);
  EXPECT_THROW(FailCall("open", 0), std::invalid_argument);
  EXPECT_EQ(KernelTimeLimit(), std::chrono::milliseconds(20));
}

TEST_F(FpgaFault, AThousandInterleavedRunsLeaveEverythingFlat) {
  SetKernelTimeLimit(std::chrono::seconds(10));
  const auto round = [&] {
    {
      Kernel_FPGA kernel(0, maps_.input_size(), maps_.output_size());
      maps_.RunOn(kernel);
      maps_.Run(Way::kOneShot);
      maps_.RunOn(kernel);
    }
    maps_.Run(Way::kOld);
  };
  for (int i = 0; i < 20; ++i) round();
  const Resources before = CountResources();
  const std::size_t memory_before = HeapBytes();
  for (int i = 0; i < 250; ++i) round();  // 1,000 runs
  ExpectNothingLeft(before);
  EXPECT_LE(HeapBytes(), memory_before + 16384);
  EXPECT_EQ(maps_.cost, maps_.Expected());
}

}  // namespace
}  // namespace image
}  // namespace utils
}  // namespace qx
