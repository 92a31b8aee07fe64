// The order of everything that the three ways of running the correlation kernel do, built as for a
// real board: what they ask of the device runtime and of the operating system, what they log, what
// they store in which register, and when.
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "qxtools/emulated_board.h"
#include "qxtools/fpga_correlation.h"
#include "tests/testing/device_board.h"
#include "tests/testing/test.h"
#include "vision/image_frame_fields.h"

namespace qx::utils::image {
namespace {

using std::chrono::milliseconds;
using testing::DeviceBoard;

// Somebody else's frame, which tells when it is asked for its bytes.
class Frame : public velkar::vision::ImageFrameImpl {
 public:
  Frame(const char* role, std::uint32_t height, std::uint32_t width, std::uint32_t channels)
      : role_(role), bytes_(4096) {
    pixel_format = QXPixelFormat::kQXPixelFormatUint8;
    SetShape(height, width, channels, 512);
  }
  void SetShape(std::uint32_t height, std::uint32_t width, std::uint32_t channels,
                std::uint32_t bytes) {
    velkar::vision::ImageFrameFields::SetShape(*this, height, width, channels);
    velkar::vision::ImageFrameFields::SetData(*this, bytes_.data(), bytes);
  }
  std::uint8_t* Data() const override {
    DeviceBoard::Get().Add("data of ", role_);
    return ImageFrameImpl::Data();
  }

 private:
  const char* role_;
  std::vector<std::uint8_t> bytes_;
};

// Puts the library's log, verbose lines included, into the trace.
class TracedLog : public LogCapture {
 public:
  TracedLog() : LogCapture(1) {}
  void Take(google::LogSeverity severity, std::string text) override {
    DeviceBoard::Get().Add(severity == google::INFO ? "log: " : "error: ", text);
  }
};

// Pieces of traces. Device addresses are 0x50000n000: only their low halves reach the kernel.
const std::string kBuffers =
    "group_id 0; bo left 0x200 flags 0; group_id 0x1; bo right 0x200 flags 0; group_id 0x2; "
    "bo output 0x40 flags 0; ";
const std::string kAddresses = "address left; address right; address output; ";
const std::string kAddressLines =
    "log: Physical Address for left, right, and output buffer: ; log: 20480; log: 24576; "
    "log: 28672; ";
const std::string kInputs =
    "data of left; data of right; write left 0x200 at 0; write right 0x200 at 0; "
    "sync 0 left 0x200 at 0; sync 0 right 0x200 at 0; log: CORR_FPGA Execution Start; ";
const std::string kStart =
    "offset 0; offset 0x1; offset 0x2; offset 0x3; store 0x40 0x5000; store 0x4c 0x6000; "
    "store 0x58 0x7000; store 0x64 0x6; store 0 0x1; ";
const std::string kOutput = "sync 0x1 output 0x40 at 0; data of output; read output 0x40 at 0; ";
const std::string kRelease = "~bo output; ~bo right; ~bo left; ";
const std::string kShapes =
    "log: cost_volume inputs shape: \nleft: (2, 8, 32) right: (1, 1, 512) ; log: 6; ";

enum class Way { kObject, kOneShot, kOld };
constexpr Way kWays[] = {Way::kObject, Way::kOneShot, Way::kOld};

class FpgaProtocol : public ::testing::Test {
 protected:
  FpgaProtocol() { SetScales(0.5F, 0.25F, 0.125F); }
  ~FpgaProtocol() override {
    board_ = DeviceBoard{};
    SetKernelTimeLimit(milliseconds(10000));
  }

  void SetScales(float left, float right, float output) {
    left_.scale = left;
    right_.scale = right;
    output_.scale = output;
  }

  void Run(Way way) {
    const auto one_shot = way == Way::kOneShot ? CostVolume_FPGA : CostVolume_FPGA_old;
    if (way != Way::kObject) {
      one_shot(&left_, &right_, &output_, "an.xclbin", "Other:{Other_7}", 2);
    } else {
      Kernel_FPGA(2, 512, 64).CostVolume_FPGA(&left_, &right_, &output_);
    }
  }

  // Runs with these looks at the control word. Returns: the error, empty when there was none.
  std::string ErrorOf(Way way, std::vector<std::uint32_t> words) {
    board_.words = std::move(words);
    board_.trace.clear();
    try {
      Run(way);
      return "";
    } catch (const std::exception& error) {
      return error.what();
    }
  }

  // The lines of the trace that begin with `start`, without it.
  std::vector<std::string> Lines(const std::string& start) const {
    std::vector<std::string> lines;
    for (const std::string& line : board_.trace) {
      if (line.compare(0, start.size(), start) == 0) lines.push_back(line.substr(start.size()));
    }
    return lines;
  }
  std::string Trace() const {
    std::string all;
    for (const std::string& line : board_.trace) all += line + "; ";
    return all;
  }

  DeviceBoard& board_ = DeviceBoard::Get();
  Frame left_{"left", 2, 8, 32};
  Frame right_{"right", 1, 1, 512};  // its shape is only logged
  Frame output_{"output", 2, 8, 4};  // of 512 bytes, more than the 64 of its buffer
};

TEST_F(FpgaProtocol, ObjectPreparesOnceAndReleasesKernelBeforeBuffers) {
  const TracedLog log;
  board_.words = {0, 1, 1, 3};
  {
    Kernel_FPGA kernel(2, 512, 64);
    kernel.CostVolume_FPGA(&left_, &right_, &output_);
    kernel.CostVolume_FPGA(&left_, &right_, &output_);
    board_.Add("end");
  }
  const std::string path = "/lib/firmware/xilinx/k26brannoc/k26brannoc.xclbin; ";
  EXPECT_EQ(Trace(), "log: Open the device: 2; device 0x2; log: Load the xclbin " + path +
                         "load_xclbin " + path + "log: Build the kernal " + path +
                         "kernel Corr:{Corr_1} mode 0x1; " + "log: Open successfully ; " +
                         kBuffers + "get_instance; address_of Corr 0; ~handle; " + kAddresses +
                         "open /dev/mem; mmap 0x1000 0x8a0010000; ~device; load 0 0; " + kInputs +
                         kStart +
                         "load 0 0x1; sleep 100000; load 0 0x1; sleep 100000; load 0 0x3; " +
                         "log: FPGA CORR Time Cost: 8.2ms; " + kOutput + "load 0 0x3; " + kInputs +
                         kStart + "load 0 0x3; log: FPGA CORR Time Cost: 8ms; " + kOutput +
                         "end; munmap 0x1000; close; ~kernel; " + kRelease);
}

TEST_F(FpgaProtocol, OneShotBindsItsOwnUnitAndReleasesDeviceLast) {
  const TracedLog log;
  board_.words = {0, 1, 0};
  Run(Way::kOneShot);
  EXPECT_EQ(
      Trace(),
      kShapes + "log: Open the device: 2; device 0x2; log: Load the xclbin an.xclbin; " +
          "load_xclbin an.xclbin; log: Build the kernal an.xclbin; log: Cu_name: Corr:{Corr_1}; " +
          "log: TEST CORR; kernel Corr:{Corr_1} mode 0x1; log: Open successfully ; " +
          "log: TEST CORR; " + kBuffers + "log: TEST CORR; " + kAddresses + kAddressLines +
          kInputs + "open /dev/mem; log: 7777; mmap 0x1000 0xa0000000; load 0 0; " + kStart +
          "load 0 0x1; sleep 2000000; load 0 0; log: FPGA CORR Time Cost: 8ms; " + kOutput +
          "log: 64; munmap 0x1000; close; " + kRelease + "~kernel; ~device; ");
}

TEST_F(FpgaProtocol, OldOneShotUsesRuntimeRegistersOfAnExclusiveUnit) {
  const TracedLog log;
  board_.words = {0, 1, 3};
  Run(Way::kOld);
  EXPECT_EQ(Trace(),
            kShapes + "log: Open the device2; device 0x2; log: Load the xclbin an.xclbin; " +
                "load_xclbin an.xclbin; log: Build the kernal an.xclbin; kernel Other:{Other_7} "
                "mode 0; " +
                "read_register 0 0; " + kBuffers + kAddresses + kAddressLines + kInputs +
                "offset 0; write_register 0x40 0x5000; offset 0x1; write_register 0x4c 0x6000; " +
                "offset 0x2; write_register 0x58 0x7000; offset 0x3; write_register 0x64 0x6; " +
                "write_register 0 0x1; read_register 0 0x1; sleep 100000; read_register 0 0x3; " +
                "log: FPGA CORR Time Cost: 11.1ms; " + kOutput + kRelease + "~kernel; ~device; ");
}

TEST_F(FpgaProtocol, ExponentIsTruncatedAndSaturates) {
  constexpr float kInf = std::numeric_limits<float>::infinity();
  // Scales, and what is stored: by the object and the one-shot, by the old one-shot.
  const std::tuple<float, float, float, const char*, const char*> cases[] = {
      {0.5F, 0.25F, 0.125F, "0x6", "0x6"},
      {0.1F, 0.1F, 1.0F, "0x6", "0x6"},  // log2(100) = 6.64
      {1.0F, 1.0F, 1.0F, "0", "0"},
      {2.0F, 1.0F, 1.0F, "0", "0xffffffff"},
      {8.0F, 1.0F, 1.5F, "0", "0xfffffffd"},  // -3.58
      {0.0F, 1.0F, 1.0F, "0xffffffff", "0x7fffffff"},
      {kInf, 1.0F, 1.0F, "0", "0x80000000"},
      {-1.0F, 1.0F, 1.0F, "0", "0"},
      {NAN, 1.0F, 1.0F, "0", "0"},
      // The order of the products matters: right times left overflows before the output's scale.
      {1e30F, 1e30F, 1e-30F, "0", "0x80000000"},
      {1e30F, 1e-30F, 1e-9F, "0x1d", "0x1d"},
  };
  for (const auto& [left, right, output, object, old] : cases) {
    SetScales(left, right, output);
    for (const Way way : kWays) {
      EXPECT_EQ(ErrorOf(way, {0}), "");
      const bool is_old = way == Way::kOld;
      EXPECT_THAT(Lines(is_old ? "write_register 0x64 " : "store 0x64 "),
                  ElementsAre(is_old ? old : object))
          << left << ' ' << right << ' ' << output;
    }
  }
}

TEST_F(FpgaProtocol, EnvironmentReplacesPathAndUnitEvenWhenEmpty) {
  for (const char* value : {"", "mine"}) {
    setenv("xclbin_path", value, 1);
    setenv("cu_name", value, 1);
    EXPECT_EQ(ErrorOf(Way::kObject, {0}), "");
    unsetenv("xclbin_path");
    unsetenv("cu_name");
    EXPECT_THAT(Lines("load_xclbin "), ElementsAre(value));
    EXPECT_THAT(Lines("kernel "), ElementsAre(std::string(value) + " mode 0x1"));
  }
}

TEST_F(FpgaProtocol, WaitsWhileTheWordIsOneAndSleepsTheRestOfAnInterruptedSleep) {
  for (const Way way : kWays) {
    for (const std::uint32_t end : {0U, 2U, 3U, 0x101U, 0xFFFFFFFFU}) {
      EXPECT_EQ(ErrorOf(way, {0, end}), "");
      EXPECT_THAT(Lines("sleep "), IsEmpty()) << end;
    }
    board_.interrupted = 2;
    EXPECT_EQ(ErrorOf(way, {0, 1, 1, 1, 0}), "");
    const bool slow = way == Way::kOneShot;
    const std::string all = slow ? "2000000" : "100000", half = slow ? "1000000" : "50000";
    EXPECT_THAT(Lines("sleep "), ElementsAre(all, all, half, all));
  }
}

// Limits of nearly as many milliseconds as there are nanoseconds overflowed: every run failed.
TEST_F(FpgaProtocol, ALimitOfAnySizeIsKept) {
  const std::string late = "the correlation kernel did not finish within ";
  const std::tuple<milliseconds, std::vector<std::uint32_t>, std::string> cases[] = {
      {milliseconds::max(), {0, 1, 1, 1, 0}, ""},
      {milliseconds(9300000000000), {0, 1, 1, 1, 0}, ""},
      {milliseconds(3), {0, 1}, late + "3 ms"},
      {milliseconds::min(), {0, 1}, late + "-9223372036854775808 ms"},
      {milliseconds(0), {0, 1}, late + "0 ms"},
      {milliseconds(1), {0, 1, 0}, ""},  // one look more after a sleep that outlasted the limit
      {milliseconds(-1), {0, 0}, ""},
  };
  for (const auto& [limit, words, error] : cases) {
    SetKernelTimeLimit(limit);
    EXPECT_EQ(KernelTimeLimit(), limit);
    for (const Way way : kWays) EXPECT_EQ(ErrorOf(way, words), error);
  }
}

// The buffers of a run that was given up went back while the kernel still wrote to them, and a
// refused run replaced the inputs of the run that went on.
TEST_F(FpgaProtocol, ARunThatGoesOnKeepsItsBuffersAndItsInputs) {
  const TracedLog log;
  SetKernelTimeLimit(milliseconds(1));
  for (const Way way : kWays) {
    EXPECT_THAT(ErrorOf(way, {0, 1}), HasSubstr("did not finish within 1 ms"));
    EXPECT_THAT(Lines("~bo "), IsEmpty());
    EXPECT_THAT(Lines("error: "),
                ElementsAre("the correlation kernel is still running: its buffers, 1088 "
                            "bytes, are kept until the next run finds it idle"));
    EXPECT_EQ(ErrorOf(way, {1}), "the correlation kernel is still busy with an earlier run");
    EXPECT_THAT(Lines("~bo "), SizeIs(way == Way::kOld ? 0 : 3));  // its own
    EXPECT_THAT(Lines("write "), SizeIs(way == Way::kOneShot ? 2 : 0));
    EXPECT_EQ(ErrorOf(way, {0}), "");
    EXPECT_THAT(Lines("~bo "), SizeIs(6));
  }
  // Whether the kernel still runs cannot be seen.
  board_.failing = "read_register 0 0x1";
  EXPECT_EQ(ErrorOf(Way::kOld, {0, 1}), board_.failing);
  EXPECT_THAT(Lines("~bo "), IsEmpty());
  board_.failing.clear();
  EXPECT_EQ(ErrorOf(Way::kOld, {0}), "");
}

TEST_F(FpgaProtocol, FailuresOfTheRegisterDeviceSayWhatIsNeeded) {
  const std::tuple<const char*, int, const char*> cases[] = {
      {"open", EACCES, "(this needs superuser privileges): Permission denied"},
      {"mmap", EPERM, "(this needs superuser privileges): Operation not permitted"},
      {"open", ENOENT,
       "cannot open /dev/mem for the correlation kernel's registers: No such file"}};
  for (const auto& [call, error, message] : cases) {
    board_.failing = call;
    board_.error = error;
    for (const Way way : {Way::kObject, Way::kOneShot}) {
      EXPECT_THAT(ErrorOf(way, {0}), HasSubstr(message));
      EXPECT_THAT(Lines("~bo "), SizeIs(3));
      EXPECT_THAT(Lines("close"), SizeIs(*call == 'm' ? 1 : 0));
    }
  }
}

TEST_F(FpgaProtocol, ARegisterOutsideThePageIsRefusedNotTouched) {
  for (const unsigned offset : {4096U, 0x66U}) {
    board_.last_offset = offset;
    for (const Way way : {Way::kObject, Way::kOneShot}) EXPECT_THROW(Run(way), std::out_of_range);
  }
  EXPECT_THAT(Lines("store "), IsEmpty());
}

TEST_F(FpgaProtocol, BadSizesAreRefusedBeforeAnythingIsOpened) {
  for (const auto& [input, output] :
       {std::pair{0, 64}, {512, 0}, {-1, 64}, {512, std::numeric_limits<int>::min()}}) {
    EXPECT_THROW(Kernel_FPGA(0, input, output), std::invalid_argument);
  }
  for (const auto& [height, width, channels, disparities] : std::vector<std::array<unsigned, 4>>{
           {0, 8, 32, 4}, {2, 8, 32, 0}, {0x10000, 0x8000, 1, 1}}) {
    left_.SetShape(height, width, channels, 512);
    output_.SetShape(height, width, disparities, 512);
    for (const Way way : {Way::kOneShot, Way::kOld}) EXPECT_THROW(Run(way), std::invalid_argument);
  }
  EXPECT_THAT(board_.trace, IsEmpty());
}

TEST_F(FpgaProtocol, OneShotsEndTheProcessForFramesThatDoNotFit) {
  right_.SetShape(1, 1, 512, 1024);
  for (const Way way : {Way::kOneShot, Way::kOld}) {
    EXPECT_DEATH(Run(way), "\\(512 vs. 1024\\) ?The two inputs' size not same, please check\\.");
  }
}

TEST_F(FpgaProtocol, ABuildForABoardHasNoEmulatedOne) {
  EXPECT_FALSE(emulated_board::IsEmulated());
  EXPECT_THROW((void)emulated_board::GetStatus(), std::logic_error);
}

}  // namespace
}  // namespace qx::utils::image
