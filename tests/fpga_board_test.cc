// The emulated board: containers, handles, memory, faults, and that it computes what the processor
// computes.
#include <sys/stat.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "board/emulated/board_environment.h"
#include "tests/testing/fpga_runs.h"
#include "tests/testing/temp_path.h"
#include "tests/testing/test.h"
#include "xrt/xrt_bo.h"
#include "xrt/xrt_device.h"
#include "xrt/xrt_kernel.h"

namespace qx::utils::image {
namespace {

namespace fs = std::filesystem;
using emulated_board::FailCall;
using emulated_board::Geometry;
using emulated_board::GetStatus;
using std::chrono::milliseconds;

const char kContainer[] = R"({
  "format": "qxtools emulated container 1",
  "kernel": "Corr", "instance": "Corr_1", "base_address": "0xA0000000",
  "geometry": {"height": 2, "width": 8, "channels": 32, "disparities": 4},
  "arguments": [{"offset": 16, "group": 0}, {"offset": "0x1c", "group": 0},
                {"offset": 40, "group": 1}, {"offset": 52, "group": 0}],
  "memory": [{"group": 0, "base": "0x10000000", "size": 8192},
             {"group": 1, "base": "0x40000000", "size": 12288}]
})";

std::string Replaced(const std::string& from, const std::string& to) {
  std::string text = kContainer;
  return text.replace(text.find(from), from.size(), to);
}

// What a process can leak besides memory that a sanitizer sees: descriptors, threads, mappings of
// the board's memory; and what the board has handed out.
std::vector<std::ptrdiff_t> CountResources() {
  const auto entries = [](const char* folder) {
    return std::distance(fs::directory_iterator(folder), {});
  };
  std::ifstream maps("/proc/self/maps");
  std::ptrdiff_t mappings = 0;
  for (std::string line; std::getline(maps, line);) {
    mappings += line.find("qxtools-board") != line.npos ? 1 : 0;
  }
  const emulated_board::Status status = GetStatus();
  return {entries("/proc/self/fd"), entries("/proc/self/task"), mappings,
          static_cast<std::ptrdiff_t>(status.buffers + status.open_units)};
}

class FpgaBoard : public ::testing::Test {
 protected:
  ~FpgaBoard() override {
    for (const char* name : {"xclbin_path", "cu_name"}) unsetenv(name);
    fs::remove(file_);
  }

  // Makes the file that Kernel_FPGA and the command find through the environment.
  void WriteContainer(const std::string& text) const {
    std::ofstream(file_) << text;
    setenv("xclbin_path", file_.c_str(), 1);
  }

  void ExpectGoodRun(Way way) {
    std::fill(maps_.cost.begin(), maps_.cost.end(), 0xA5);
    maps_.Run(way);
    EXPECT_EQ(maps_.cost, maps_.Expected()) << NameOf(way);
  }

  std::string ErrorOf(Way way, const std::string& container = kDefaultXclbinPath, int device = 0) {
    return maps_.ErrorOf(way, kDefaultCuName, container.c_str(), device);
  }

  const std::string file_ = testing::TempPath("fpga.container");
  BoardScope board_;
  StereoMaps maps_{{2, 8, 32, 4}};
};

// These two come first: their processes must not have used the board before.
std::shared_ptr<Kernel_FPGA> g_owner;

// The board was destroyed before an object whose global owner was older: signal 11 at exit().
TEST(FpgaBoardProcess, AGlobalOwnerOutlivesMain) {
  EXPECT_EXIT(
      {
        g_owner = std::make_shared<Kernel_FPGA>(0, 512, 64);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(FpgaBoardProcess, SaysOnceThatNoRealBoardIsUsedUnlessTheProcessKnows) {
  for (const bool knows : {false, true}) {
    EXPECT_EXIT(
        {
          if (knows) emulated_board::SetSettings(emulated_board::GetSettings());
          const LogCapture log;
          for (int i = 0; i < 2; ++i) DescribeCorrelationUnit(0);
          std::exit(static_cast<int>(log.Messages(google::WARNING).size()));
        },
        ::testing::ExitedWithCode(knows ? 0 : 1), "")
        << knows;
  }
}

// A product of exactly 2^-e, e >= 0, gives the processor's bytes; so does a product of zero. Others
// between 0 and 1 act as the next larger power of two.
TEST_F(FpgaBoard, ComputesWhatTheProcessorComputes) {
  const Geometry shapes[] = {{3, 40, 32, 16}, {2, 17, 96, 33}, {1, 5, 48, 9},   {4, 3, 31, 2},
                             {1, 1, 64, 1},   {2, 9, 2048, 4}, {5, 70, 160, 64}};
  const std::pair<float, float> products[] = {
      {1.0F, 1.0F},           {0.5F, 0.5F}, {0x1p-7F, 0x1p-7F}, {0x1p-126F, 0x1p-126F},
      {0x1p-140F, 0x1p-140F}, {0.0F, 0.0F}, {0.01F, 0x1p-6F}};  // and what they act as
  for (const Geometry& shape : shapes) {
    board_.settings.geometry = shape;
    board_.Apply();
    StereoMaps maps(shape, shape.width);
    std::fill_n(maps.left_bytes.begin(), shape.channels, 0x80);  // the extremes, too
    std::fill_n(maps.right_bytes.begin(), shape.channels, 0x80);
    Kernel_FPGA kernel(0, maps.input_size(), maps.output_size());
    for (const auto& [product, acts_as] : products) {
      maps.left->scale = product;
      maps.RunOn(kernel);
      maps.left->scale = acts_as;
      EXPECT_EQ(maps.cost, maps.Expected()) << shape.width << 'x' << shape.channels << product;
    }
  }
}

TEST_F(FpgaBoard, ContainerTextsAreChecked) {
  EXPECT_NO_THROW(emulated_board::CheckContainer(kContainer));
  const std::array<const char*, 3> cases[] = {
      // what is replaced, by what, and the complaint
      {"{", "", "parse error"},
      {"container 1", "container 2", "\"format\" must be"},
      {"\"kernel\": \"Corr\"", "\"kernel\": 5", "type must be string"},
      {"\"0xA0000000\"", "\"0xFFFFF8000\"", "base_address"},
      {"\"0xA0000000\"", "\"A0000000\"", "must be a non-negative number"},
      {"\"height\": 2", "\"height\": 0", "no dimension"},
      {"\"height\": 2", "\"height\": 4294967295", "2^31 - 1"},
      {"\"height\": 2", "\"height\": 17", "do not fit memory group 0: they need 16384 bytes"},
      {"\"offset\": 16", "\"offset\": 0", "argument 0: the offset"},
      {"\"offset\": 16", "\"offset\": 4096", "argument 0: the offset"},
      {"\"offset\": 40", "\"offset\": 16", "argument 2: offset used twice"},
      {"40, \"group\": 1", "40, \"group\": 7", "argument 2: no memory group 7"},
      {"{\"offset\": 16, \"group\": 0}, ", "", "\"arguments\" must list"},
      {"12288", "100", "memory group 1: base and size"},
      {"12288", "\"0xC0001000\"", "memory group 1: must be below 4 GiB"},
      {"12288", "\"0x60001000\"", "memory group 1: overlaps"},
  };
  for (const auto& [from, to, error] : cases) {
    const auto check = [text = Replaced(from, to)] { emulated_board::CheckContainer(text); };
    EXPECT_THAT(testing::ErrorOf<std::runtime_error>(check), HasSubstr(error)) << to;
  }
}

TEST_F(FpgaBoard, ContainerFileDecidesAddressesOffsetsAndGeometry) {
  std::string text = Replaced("\"0xA0000000\"", "\"0x8B0000010\"");  // low bits do not count
  text.replace(text.find("\"offset\": 16"), 12, "\"offset\": 256");
  WriteContainer(text);
  ExpectGoodRun(Way::kObject);
  const CorrelationUnit unit = DescribeCorrelationUnit(0);
  EXPECT_EQ(unit.base_address, 0x8B0000010U);
  EXPECT_THAT(unit.offsets, ElementsAre(256, 0x1C, 40, 52));
  EXPECT_THAT(unit.memory_groups, ElementsAre(0, 0, 1));
  EXPECT_EQ(GetStatus().container, file_);
  EXPECT_FALSE(GetStatus().built_in);
  // The one-shot looks for the registers at their usual place, where nothing answers.
  SetKernelTimeLimit(milliseconds(10));
  EXPECT_THAT(ErrorOf(Way::kOneShot, file_), HasSubstr("did not finish within 10 ms"));
  EXPECT_EQ(ErrorOf(Way::kOld, file_), "");
  EXPECT_EQ(maps_.cost, maps_.Expected());
}

// Files were read to their end before the first byte was looked at: 6 GB, /dev/zero, a FIFO.
TEST_F(FpgaBoard, WhatCannotBeLoadedOrBoundSaysWhy) {
  WriteContainer(Replaced("\"Corr\"", "\"Warp\""));
  const std::string fifo = testing::TempPath("fifo"), large = testing::TempPath("large");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::ofstream(large).close();
  fs::resize_file(large, (1 << 20) + 1);
  const std::pair<std::string, std::string> cases[] = {
      {"/nowhere", "cannot open the container '/nowhere'"},
      {"/proc/self/stat", "'/proc/self/stat' is not a valid emulated-board container"},
      {"/dev/zero", "'/dev/zero' is not a regular file"},
      {fifo, fifo + "' is not a regular file"},
      {large, large + "' is larger than 1 MiB"},
      {file_, "which has 'Warp:{Corr_1}'"}};
  for (const auto& [path, error] : cases) {
    EXPECT_THAT(ErrorOf(Way::kOneShot, path), HasSubstr(error));
  }
  fs::remove(fifo);
  fs::remove(large);
  EXPECT_THAT(ErrorOf(Way::kOneShot, kDefaultXclbinPath, 1), HasSubstr("no device 1"));
  setenv("cu_name", "Warp:{Corr_1}", 1);  // binds, but it is not the kernel whose address is asked
  EXPECT_THAT(ErrorOf(Way::kObject), HasSubstr("no core 0 of kernel 'Corr'"));
}

TEST_F(FpgaBoard, ExclusiveAndSharedHandlesExcludeEachOther) {
  using Mode = xrt::kernel::cu_access_mode;
  WriteContainer(kContainer);
  xrt::device device(0);
  const xrt::uuid container = device.load_xclbin(kDefaultXclbinPath);
  {
    xrt::kernel shared(device, container, kDefaultCuName, Mode::shared);
    EXPECT_THAT(ErrorOf(Way::kOld), HasSubstr("is in use"));
    EXPECT_EQ(ErrorOf(Way::kOneShot), "");
    EXPECT_THROW(shared.write_register(0x10, 0), std::runtime_error);
    EXPECT_THAT(ErrorOf(Way::kOneShot, file_), HasSubstr("cannot load"));
  }
  const xrt::uuid other = device.load_xclbin(file_);
  EXPECT_THROW(xrt::kernel(device, container, kDefaultCuName, Mode::shared), std::runtime_error);
  xrt::kernel exclusive(device, other, kDefaultCuName, Mode::exclusive);
  for (const Way way : kWays) {
    EXPECT_THAT(ErrorOf(way, file_), HasSubstr("is in use exclusively"));
  }
  EXPECT_THROW(exclusive.write_register(65536, 0), std::runtime_error);
  EXPECT_THROW((void)exclusive.read_register(2), std::runtime_error);
  EXPECT_THROW((void)exclusive.offset(4), std::runtime_error);
}

// Only synchronising makes the two copies of a buffer equal. Memory is handed out once: buffers
// never overlap, and that of a released one is used again.
TEST_F(FpgaBoard, BuffersAreBlocksOfPhysicalMemory) {
  xrt::device device(0);
  device.load_xclbin(kDefaultXclbinPath);
  const auto make = [&](std::size_t bytes, unsigned group = 0) {
    return std::make_unique<xrt::bo>(device, bytes, xrt::bo::flags::normal, group);
  };
  auto a = make(4097), b = make(8);
  const std::uint64_t base = a->address(), one = 1, two = 2;
  EXPECT_EQ(b->address(), base + 8192);
  a.reset();
  EXPECT_EQ(make(8193)->address(), base + 12288);  // the gap is too small
  EXPECT_EQ(make(8192)->address(), base);
  EXPECT_EQ(GetStatus().buffer_bytes, 8U);
  std::uint64_t value = 0;
  b->write(&one, 8, 0);
  b->sync(kSyncToDevice, 8, 0);
  b->write(&two, 8, 0);
  b->sync(kSyncFromDevice, 8, 0);
  b->read(&value, 8, 0);
  EXPECT_EQ(value, 1U);
  EXPECT_THROW(b->write(&one, 8, 1), std::runtime_error);
  EXPECT_THROW(b->sync(kSyncToDevice, 9, 0), std::runtime_error);
  for (const std::size_t bytes : {std::size_t{0}, std::size_t{0x40000000}, ~std::size_t{0}}) {
    EXPECT_THROW(make(bytes), std::runtime_error) << bytes;
  }
  EXPECT_THROW(make(8, 9), std::runtime_error);
}

TEST_F(FpgaBoard, RunsThatGiveNoResultAreReported) {
  const std::pair<Geometry, const char*> cases[] = {
      {{1, 8, 32, 8}, "the kernel needs 512 bytes"},
      {{2, 8, 32, 2}, "the kernel writes 64 bytes at 0x40000000"},
      {{2, 8, 32, 4}, "ends with an error value"}};
  for (const auto& [shape, error] : cases) {
    if (shape.disparities == 4) FailCall("unit.error");
    const LogCapture log;
    StereoMaps(shape).Run(Way::kOld);
    EXPECT_THAT(log.Messages(google::ERROR), ElementsAre(HasSubstr(error)));
  }
}

TEST_F(FpgaBoard, SettingsComeFromTheEnvironmentAndAreChecked) {
  const std::array<std::string, 3> cases[] = {
      // variable, value, and what comes of it: width, run time, faults, errors
      {"GEOMETRY", "4x5x32x7", "5 0 0 0"},
      {"GEOMETRY", "4x5x32", "320 0 0 1"},
      {"GEOMETRY", "4x0x32x7", "320 0 0 1"},
      {"GEOMETRY", "4x5x32x7 ", "320 0 0 1"},
      {"GEOMETRY", "1x1000000000x1x1", "320 0 0 1"},
      {"RUN_TIME_US", "2500", "320 2500 0 0"},
      {"RUN_TIME_US", "-1", "320 0 0 1"},
      {"FAULTS", "open,xrt::bo::sync@2", "320 0 2 0"},
      {"FAULTS", "open@,opne,open@0,mmap@x", "320 0 0 4"},
  };
  for (const auto& [name, value, expected] : cases) {
    setenv(("QXTOOLS_BOARD_" + name).c_str(), value.c_str(), 1);
    const LogCapture log;
    board::CallLog calls;
    const emulated_board::Settings settings = board::SettingsFromEnvironment();
    board::InjectFaultsFromEnvironment(calls);
    std::ostringstream actual;
    actual << settings.geometry.width << ' ' << settings.run_time.count() << ' '
           << calls.ClearFaults() << ' ' << log.Messages(google::ERROR).size();
    EXPECT_EQ(actual.str(), expected) << value;
    unsetenv(("QXTOOLS_BOARD_" + name).c_str());
  }
  for (const emulated_board::Settings& bad :
       {emulated_board::Settings{{}, {}, 1}, {{}, std::chrono::microseconds(-1)}, {{1, 1, 0, 1}}}) {
    EXPECT_THROW(emulated_board::SetSettings(bad), std::invalid_argument);
  }
  EXPECT_THROW(FailCall("xrt::bo::fly"), std::invalid_argument);
  EXPECT_THROW(FailCall("open", 0), std::invalid_argument);
}

TEST_F(FpgaBoard, EveryUseOfEveryCallCanFailAndNothingIsLeftBehind) {
  SetKernelTimeLimit(milliseconds(20));
  for (const Way way : kWays) ExpectGoodRun(way);
  const auto before = CountResources();
  const std::string memory =
      " /dev/mem for the correlation kernel's registers (this needs "
      "superuser privileges): ";
  const std::map<std::string, std::string> texts = {
      // of errors that do not name the call
      {"unit.error", ""},
      {"nanosleep", ""},
      {"unit.hang", "within 20 ms"},
      {"open", "cannot open" + memory + "Permission denied"},
      {"mmap", "cannot map" + memory + "Operation not permitted"}};
  std::vector<int> failures;
  for (const Way way : kWays) {
    failures.push_back(0);
    for (const std::string& call : emulated_board::FaultNames()) {
      for (unsigned nth = 1;; ++nth, ++failures.back()) {
        SCOPED_TRACE(::testing::Message() << NameOf(way) << ": " << call << '@' << nth);
        FailCall(call, nth);
        const std::string error = ErrorOf(way);
        if (emulated_board::ClearFaults() != 0) break;  // the run has fewer uses of this call
        const auto text = texts.find(call);
        EXPECT_THAT(error, HasSubstr(text == texts.end() ? call : text->second));
        EXPECT_EQ(error.empty(), text != texts.end() && text->second.empty());
        ExpectGoodRun(way);  // gives back what a run that hangs has kept
        EXPECT_EQ(CountResources(), before);
      }
    }
  }
  EXPECT_THAT(failures, ElementsAre(28, 26, 31));
}

}  // namespace
}  // namespace qx::utils::image
