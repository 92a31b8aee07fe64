// The order of everything that the three ways of running the correlation kernel do: what they ask
// of the device runtime and of the operating system, what they log, what they store in which
// register, and when. The emulated board records it; a run that hangs is ended by a sleep, so that
// the number of looks at the control word does not depend on time.
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <utility>

#include "board/board_interface.h"
#include "board/emulated/board.h"
#include "tests/testing/fpga_runs.h"
#include "tests/testing/test.h"
#include "xrt/xrt_bo.h"
#include "xrt/xrt_kernel.h"

namespace {

struct Hooks {
  unsigned sleeps = 0;       // until a run that hangs is ended; 0: it never is
  unsigned last_offset = 0;  // of the register of argument 3, unless 0
  std::chrono::microseconds clock{0};
} g_hooks;

void Note(const char* name, const std::string& detail) {
  qx::board::Board::Get().log().Note(name, detail);
}

void EndHungRun() {
  qx::emulated_board::EndHungRun();
  while (qx::emulated_board::GetStatus().running) std::this_thread::yield();
}

}  // namespace

// The linker sends this program's calls here (-Wl,--wrap).
#define QX_WRAP(result, name, symbol, parameters)     \
  result Real##name parameters asm("__real_" symbol); \
  result Wrap##name parameters asm("__wrap_" symbol); \
  result Wrap##name parameters

QX_WRAP(int, Sleep, "_ZN2qx5board5SleepEPK8timespecPS1_",
        (const std::timespec* request, std::timespec* remaining)) {
  const int result = RealSleep(request, remaining);
  if (g_hooks.sleeps != 0 && --g_hooks.sleeps == 0) EndHungRun();
  return result;
}
QX_WRAP(std::uint32_t, Offset, "_ZN3xrt6kernel6offsetEi", (xrt::kernel * kernel, int argument)) {
  const std::uint32_t offset = RealOffset(kernel, argument);
  return argument == 3 && g_hooks.last_offset != 0 ? g_hooks.last_offset : offset;
}
QX_WRAP(std::uint64_t, Address, "_ZN3xrt2bo7addressEv", (xrt::bo * buffer)) {
  return RealAddress(buffer) | 0x500000000;  // only the low half may reach the kernel
}
// Each look at the clock takes 2.5 ms.
QX_WRAP(std::chrono::system_clock::time_point, Now, "_ZNSt6chrono3_V212system_clock3nowEv",
        (void)) {
  Note("clock", "");
  return std::chrono::system_clock::time_point(g_hooks.clock += std::chrono::microseconds(2500));
}

namespace qx::utils::image {
namespace {

using emulated_board::FailCall;
using emulated_board::GetStatus;
using std::chrono::milliseconds;
using velkar::vision::ImageFrameImpl;

// A frame that records when it is asked for its bytes.
class NotedFrame : public ImageFrameImpl {
 public:
  NotedFrame(const char* role, const std::shared_ptr<ImageFrameImpl>& frame)
      : ImageFrameImpl(*frame), role_(role) {}
  std::uint8_t* Data() const override {
    Note("data", role_);
    return ImageFrameImpl::Data();
  }

 private:
  const char* role_;
};

// Puts the library's log, verbose lines included, into the recording.
class TracedLog : public LogCapture {
 public:
  TracedLog() : LogCapture(1) {}
  void Take(google::LogSeverity severity, std::string text) override {
    Note(severity == google::INFO ? "log" : "error", text);
  }
};

class FpgaProtocol : public ::testing::Test {
 protected:
  FpgaProtocol() {
    const auto frame = [&](auto& bytes, unsigned height, unsigned width, unsigned channels) {
      return ImageFrameImpl::Create(kQXPixelFormatUint8, bytes.data(), height, width, channels);
    };
    maps_.left = std::make_shared<NotedFrame>("left", maps_.left);
    // The shape of the right frame is only logged, the height of the output not even that.
    maps_.right = std::make_shared<NotedFrame>("right", frame(maps_.right_bytes, 1, 1, 512));
    maps_.output = std::make_shared<NotedFrame>("output", frame(output_, 4, 8, 4));
    SetScales(0.5F, 0.25F, 0.125F);
  }
  ~FpgaProtocol() override { g_hooks = {}; }

  void SetScales(float left, float right, float output) {
    maps_.left->scale = left;
    maps_.right->scale = right;
    maps_.output->scale = output;
  }

  // Makes the next run hang for as many looks at the control word; 0: for ever.
  static void Hang(unsigned looks) {
    FailCall("unit.hang");
    g_hooks.sleeps = looks;
  }

  std::string ErrorOf(Way way) {
    emulated_board::StartRecording();
    std::string error = maps_.ErrorOf(way);
    calls_ = emulated_board::TakeRecording();
    return error;
  }

  // The recorded details of the calls of a name, which is taken without its namespace and class.
  std::vector<std::string> Details(const std::string& name) const {
    std::vector<std::string> details;
    for (const auto& call : calls_) {
      if (call.name.substr(call.name.rfind(':') + 1) == name) details.push_back(call.detail);
    }
    return details;
  }
  // A line for each call. Descriptors are left out: their numbers are the system's choice.
  std::string Trace() const {
    std::string all;
    for (const auto& [name, detail] : calls_) {
      const bool descriptor = name == "close" || detail == descriptor_;
      all += name.substr(name.rfind(':') + 1) + " [" + (descriptor ? "fd" : detail) + "]\n";
    }
    return all;
  }

  BoardScope board_;
  StereoMaps maps_{{2, 8, 32, 4}};
  StereoMaps::Bytes output_ = StereoMaps::Bytes(128, 0xA5);  // twice the size of its buffer
  std::vector<emulated_board::Call> calls_;
  const std::string descriptor_ = [] {
    const int next = dup(0);
    close(next);
    return std::to_string(next);
  }();
};

// The object prepares once for two runs; the one-shot binds a unit of its own, whatever it is told.
TEST_F(FpgaProtocol, EveryWayDoesWhatItsTraceSays) {
  for (const Way way : kWays) {
    Hang(2);
    {
      const TracedLog log;
      emulated_board::StartRecording();
      if (way == Way::kObject) {
        Kernel_FPGA kernel(0, 512, 64);
        for (int i = 0; i < 2; ++i) maps_.RunOn(kernel);
      } else {
        maps_.Run(way, way == Way::kOneShot ? "Other:{Other_7}" : kDefaultCuName);
      }
      calls_ = emulated_board::TakeRecording();
    }
    std::ifstream file(std::string(QXTOOLS_TRACES_DIR "/") + NameOf(way) + ".txt");
    EXPECT_EQ(Trace(), std::string(std::istreambuf_iterator<char>(file), {})) << NameOf(way);
    EXPECT_EQ(output_[64], 0xA5);  // past the 64 bytes of the output buffer
  }
  EXPECT_THAT(maps_.ErrorOf(Way::kOld, "Other:{Other_7}"), HasSubstr("'Other:{Other_7}'"));
}

TEST_F(FpgaProtocol, ExponentIsTruncatedAndSaturates) {
  constexpr float kInf = std::numeric_limits<float>::infinity();
  // Scales, and what is stored: by the object and the one-shot, by the old one-shot.
  const std::tuple<float, float, float, const char*, const char*> cases[] = {
      {0.5F, 0.25F, 0.125F, "0x6", "0x6"},
      {0.1F, 0.1F, 1.0F, "0x6", "0x6"},  // log2(100) = 6.64
      {1.0F, 1.0F, 1.0F, "0x0", "0x0"},
      {2.0F, 1.0F, 1.0F, "0x0", "0xffffffff"},
      {8.0F, 1.0F, 1.5F, "0x0", "0xfffffffd"},  // -3.58
      {0.0F, 1.0F, 1.0F, "0xffffffff", "0x7fffffff"},
      {kInf, 1.0F, 1.0F, "0x0", "0x80000000"},
      {-1.0F, 1.0F, 1.0F, "0x0", "0x0"},
      {NAN, 1.0F, 1.0F, "0x0", "0x0"},
      // The order of the products matters: right times left overflows before the output's scale.
      {1e30F, 1e30F, 1e-30F, "0x0", "0x80000000"},
      {1e30F, 1e-30F, 1e-9F, "0x1d", "0x1d"},
  };
  for (const auto& [left, right, output, object, old] : cases) {
    SetScales(left, right, output);
    for (const Way way : kWays) {
      EXPECT_EQ(ErrorOf(way), "");
      const bool is_old = way == Way::kOld;
      EXPECT_THAT(Details(is_old ? "write_register" : "store"),
                  Contains(std::string("0x34 ") + (is_old ? old : object)))
          << left << ' ' << right << ' ' << output;
    }
  }
}

TEST_F(FpgaProtocol, EnvironmentReplacesPathAndUnitEvenWhenEmpty) {
  for (const auto& [variable, call, mode] :
       {std::tuple("xclbin_path", "load_xclbin", ""), {"cu_name", "kernel", " 1"}}) {
    for (const std::string value : {"", "mine"}) {
      setenv(variable, value.c_str(), 1);
      EXPECT_THAT(ErrorOf(Way::kObject), HasSubstr('\'' + value + '\''));
      EXPECT_THAT(Details(call), ElementsAre(value + mode));
      unsetenv(variable);
    }
  }
}

TEST_F(FpgaProtocol, WaitsWhileTheWordIsOneAndSleepsTheRestOfAnInterruptedSleep) {
  for (const Way way : kWays) {
    for (const std::uint32_t end : {0U, 2U, 3U, 0x101U, 0xFFFFFFFFU}) {
      board_.settings.end_value = end;
      board_.Apply();
      ASSERT_EQ(ErrorOf(way), "");
      EXPECT_THAT(Details("nanosleep"), IsEmpty()) << end;
    }
    FailCall("nanosleep", 2);
    Hang(4);
    EXPECT_EQ(ErrorOf(way), "");
    const bool slow = way == Way::kOneShot;
    const std::string all = slow ? "2000000" : "100000", half = slow ? "1000000" : "50000";
    EXPECT_THAT(Details("nanosleep"), ElementsAre(all, all, half, all));
  }
}

// Limits of nearly as many milliseconds as there are nanoseconds overflowed: every run failed.
TEST_F(FpgaProtocol, ALimitOfAnySizeIsKept) {
  const std::string late = "the correlation kernel did not finish within ";
  const std::tuple<milliseconds, int, std::string> cases[] = {
      // limit, at how many looks the run goes on (0: at every one, -1: at none), error
      {milliseconds::max(), 3, ""},
      {milliseconds(3), 0, late + "3 ms"},
      {milliseconds::min(), 0, late + "-9223372036854775808 ms"},
      {milliseconds(0), -1, ""},
  };
  for (const auto& [limit, looks, error] : cases) {
    SetKernelTimeLimit(limit);
    EXPECT_EQ(KernelTimeLimit(), limit);
    for (const Way way : kWays) {
      if (looks >= 0) Hang(static_cast<unsigned>(looks));
      EXPECT_EQ(ErrorOf(way), error);
      EndHungRun();
    }
  }
}

// The buffers of a run that was given up went to the next object, where the late kernel wrote, and
// a refused run replaced the inputs of the run that went on.
TEST_F(FpgaProtocol, ARunThatGoesOnKeepsItsBuffersAndItsInputs) {
  SetKernelTimeLimit(milliseconds(1));
  for (const Way way : kWays) {
    std::optional<Kernel_FPGA> other;  // a container that is in use cannot be loaded anew
    if (way != Way::kOld) other.emplace(0, 512, 64);
    const std::size_t before = GetStatus().buffers;
    const LogCapture log;
    Hang(0);
    EXPECT_THAT(ErrorOf(way), HasSubstr("did not finish within 1 ms"));
    EXPECT_THAT(Details("~bo"), IsEmpty());
    if (other) {
      EXPECT_THAT(ErrorOf(way), HasSubstr("is still busy with an earlier run"));
    }
    EXPECT_THAT(Details("write"), SizeIs(way == Way::kObject ? 0 : 2));
    EXPECT_EQ(GetStatus().buffers, before + 3);
    EndHungRun();
    EXPECT_THAT(log.Messages(google::ERROR),
                ElementsAre("the correlation kernel is still running: its buffers, 1088 bytes, are "
                            "kept until the next run finds it idle"));
    EXPECT_EQ(ErrorOf(way), "");
    EXPECT_EQ(GetStatus().buffers, before);
  }
  // Whether the kernel still runs cannot be seen.
  for (const unsigned nth : {2U, 3U}) FailCall("xrt::kernel::read_register", nth);
  EXPECT_THAT(ErrorOf(Way::kOld), HasSubstr("read_register"));
  EXPECT_THAT(Details("~bo"), IsEmpty());
  EXPECT_EQ(ErrorOf(Way::kOld), "");
  EXPECT_EQ(GetStatus().buffers, 0U);
}

TEST_F(FpgaProtocol, ARegisterOutsideThePageIsRefusedNotTouched) {
  for (const unsigned offset : {4096U, 0x66U}) {
    g_hooks.last_offset = offset;
    for (const Way way : {Way::kObject, Way::kOneShot}) {
      EXPECT_THAT(ErrorOf(way), HasSubstr("is not a word of the mapped page"));
      EXPECT_THAT(Details("store"), IsEmpty());
    }
  }
}

TEST_F(FpgaProtocol, BadSizesAreRefusedBeforeAnythingIsOpened) {
  for (const auto& [input, output] : {std::pair{0, 64}, {512, -1}}) {
    EXPECT_THROW(Kernel_FPGA(0, input, output), std::invalid_argument);
  }
  for (const unsigned height : {0U, 0x80000000U}) {  // the second one's bytes do not fit 31 bits
    for (auto* frame : {&maps_.left, &maps_.right, &maps_.output}) {
      *frame = ImageFrameImpl::Create(kQXPixelFormatUint8, maps_.cost.data(), height, 1, 1);
    }
    for (const Way way : {Way::kOneShot, Way::kOld}) {
      EXPECT_THAT(ErrorOf(way), HasSubstr("need positive sizes"));
      EXPECT_THAT(calls_, IsEmpty());
    }
  }
}

TEST_F(FpgaProtocol, OneShotsEndTheProcessForFramesThatDoNotFit) {
  maps_.right = ImageFrameImpl::Create(kQXPixelFormatUint8, maps_.right_bytes.data(), 1, 1, 1024);
  for (const Way way : {Way::kOneShot, Way::kOld}) {
    EXPECT_DEATH(maps_.Run(way),
                 "\\(512 vs. 1024\\) ?The two inputs' size not same, please check\\.");
  }
}

}  // namespace
}  // namespace qx::utils::image
