// The order of everything that the three ways of running the correlation kernel do.
#include <fcntl.h>

#include <cmath>
#include <cstdlib>
#include <regex>

#include "tests/testing/fpga_runs.h"
#include "tests/testing/test.h"

namespace qx {
namespace utils {
namespace image {
namespace {

using Lines = std::vector<std::string>;

const emulated_board::Geometry kSmall{2, 8, 32, 4};  // buffers of 512 and 64 bytes

// The recording as text, with the buffers by their roles and without descriptor numbers.
Lines TakeLines() {
  const std::regex left("0x10000000"), right("0x10001000"), output("0x40000000"), fd("close .*");
  Lines lines;
  for (const auto& call : emulated_board::TakeRecording()) {
    std::string line = call.detail.empty() ? call.name : call.name + ' ' + call.detail;
    line = std::regex_replace(line, left, "LEFT");
    line = std::regex_replace(line, right, "RIGHT");
    line = std::regex_replace(line, output, "OUTPUT");
    lines.push_back(std::regex_replace(line, fd, "close"));
  }
  return lines;
}

Lines operator+(Lines a, const Lines& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Lines BringUp(const std::string& unit, int access) {
  return {"xrt::device::device 0",
          std::string("xrt::device::load_xclbin ") + kContainerPath,
          "xrt::kernel::kernel " + unit + ' ' + std::to_string(access),
          "xrt::kernel::group_id 0",
          "xrt::bo::bo 512 0",
          "xrt::kernel::group_id 1",
          "xrt::bo::bo 512 0",
          "xrt::kernel::group_id 2",
          "xrt::bo::bo 64 1"};
}

const Lines kAddresses = {"xrt::bo::address LEFT", "xrt::bo::address RIGHT",
                          "xrt::bo::address OUTPUT"};
const Lines kMap = {"open /dev/mem " + std::to_string(O_RDWR | O_SYNC), "mmap 0xa0000000 0x1000"};
const Lines kSend = {"xrt::bo::write LEFT 512", "xrt::bo::write RIGHT 512", "xrt::bo::sync LEFT 0",
                     "xrt::bo::sync RIGHT 0"};
const Lines kReceive = {"xrt::bo::sync OUTPUT 1", "xrt::bo::read OUTPUT 64"};
const Lines kUnmap = {"munmap 4096", "close"};
const Lines kReleaseBuffers = {"xrt::bo::~bo OUTPUT", "xrt::bo::~bo RIGHT", "xrt::bo::~bo LEFT"};
const Lines kReleaseKernel = {"xrt::kernel::~kernel"};
const Lines kReleaseDevice = {"xrt::device::~device"};

// Exponent 6, and an end value of 3: more than the lowest bit decides.
const Lines kMappedRun = {"load 0x0 0x0",
                          "xrt::kernel::offset 0",
                          "xrt::kernel::offset 1",
                          "xrt::kernel::offset 2",
                          "xrt::kernel::offset 3",
                          "store 0x10 LEFT",
                          "store 0x1c RIGHT",
                          "store 0x28 OUTPUT",
                          "store 0x34 0x6",
                          "store 0x0 0x1",
                          "unit.start",
                          "unit.end",
                          "load 0x0 0x3"};

class FpgaProtocol : public ::testing::Test {
 protected:
  FpgaProtocol() {
    board_.settings.end_value = 3;
    board_.Apply();
    maps_.SetScales(0.5F, 0.25F, 0.125F);
  }

  Lines Record(Way way, const char* unit) {
    emulated_board::StartRecording();
    maps_.Run(way, unit);
    return TakeLines();
  }

  BoardScope board_{kSmall};
  StereoMaps maps_{kSmall};
};

TEST_F(FpgaProtocol, ObjectPreparesOnceAndReleasesKernelBeforeBuffers) {
  const Lines address_query = {"xir::XrtDeviceHandle::get_instance",
                               "xir::XrtDeviceHandle::get_physical_base_address Corr 0"};
  emulated_board::StartRecording();
  {
    Kernel_FPGA kernel(0, 512, 64);
    EXPECT_THAT(TakeLines(), ElementsAreArray(BringUp(kUnitName, 1) + address_query + kAddresses +
                                              kMap + kReleaseDevice));
    for (const char* idle_value : {"load 0x0 0x0", "load 0x0 0x3"}) {
      Lines run = kMappedRun;
      run[0] = idle_value;
      emulated_board::StartRecording();
      maps_.RunOn(kernel);
      EXPECT_THAT(TakeLines(), ElementsAreArray(kSend + run + kReceive));
    }
    emulated_board::StartRecording();
  }
  EXPECT_THAT(TakeLines(), ElementsAreArray(kUnmap + kReleaseKernel + kReleaseBuffers));
}

TEST_F(FpgaProtocol, OneShotBindsItsOwnUnitAndReleasesDeviceLast) {
  EXPECT_THAT(
      Record(Way::kOneShot, "Other:{Other_7}"),
      ElementsAreArray(BringUp(kUnitName, 1) + kAddresses + kSend + kMap + kMappedRun + kReceive +
                       kUnmap + kReleaseBuffers + kReleaseKernel + kReleaseDevice));
}

TEST_F(FpgaProtocol, OldOneShotUsesRuntimeRegistersOfAnExclusiveUnit) {
  const Lines run = {"xrt::kernel::read_register 0x0",
                     "xrt::kernel::offset 0",
                     "xrt::kernel::write_register 0x10 LEFT",
                     "xrt::kernel::offset 1",
                     "xrt::kernel::write_register 0x1c RIGHT",
                     "xrt::kernel::offset 2",
                     "xrt::kernel::write_register 0x28 OUTPUT",
                     "xrt::kernel::offset 3",
                     "xrt::kernel::write_register 0x34 0x6",
                     "xrt::kernel::write_register 0x0 0x1",
                     "unit.start",
                     "unit.end",
                     "xrt::kernel::read_register 0x0"};
  EXPECT_THAT(Record(Way::kOld, kUnitName),
              ElementsAreArray(BringUp(kUnitName, 0) + kAddresses + kSend + run + kReceive +
                               kReleaseBuffers + kReleaseKernel + kReleaseDevice));
  EXPECT_THROW(maps_.Run(Way::kOld, "Other:{Other_7}"), std::runtime_error);
}

TEST_F(FpgaProtocol, ExponentIsTruncatedAndSaturates) {
  constexpr float kInf = std::numeric_limits<float>::infinity();
  const struct {
    float left, right, output;
    std::uint32_t object, old;  // what is written; the one-shot writes what the object writes
  } cases[] = {
      {0.5F, 0.25F, 0.125F, 6, 6},
      {0.1F, 0.1F, 1.0F, 6, 6},  // log2(100) = 6.64
      {1.0F, 1.0F, 1.0F, 0, 0},
      {2.0F, 1.0F, 1.0F, 0, 0xFFFFFFFF},
      {8.0F, 1.0F, 1.5F, 0, 0xFFFFFFFD},  // -3.58
      {0.0F, 1.0F, 1.0F, 0xFFFFFFFF, 0x7FFFFFFF},
      {kInf, 1.0F, 1.0F, 0, 0x80000000},
      {-1.0F, 1.0F, 1.0F, 0, 0},
      {NAN, 1.0F, 1.0F, 0, 0},
      // The order of the products matters: right times left overflows before the output's scale.
      {1e30F, 1e30F, 1e-30F, 0, 0x80000000},
      {1e30F, 1e-30F, 1e-9F, 29, 29},
  };
  for (const auto& c : cases) {
    maps_.SetScales(c.left, c.right, c.output);
    for (const Way way : kWays) {
      SCOPED_TRACE(::testing::Message() << NameOf(way) << ' ' << c.left << ' ' << c.right);
      emulated_board::StartRecording();
      maps_.Run(way);
      std::uint64_t written = 0;
      for (const auto& call : emulated_board::TakeRecording()) {
        if (call.detail.rfind("0x34 ", 0) == 0)
          written = std::stoul(call.detail.substr(5), nullptr, 16);
      }
      EXPECT_EQ(written, way == Way::kOld ? c.old : c.object);
    }
  }
}

TEST_F(FpgaProtocol, VerboseLogTellsTheSteps) {
  const std::string path = kContainerPath;
  const std::string load = "Load the xclbin " + path, build = "Build the kernal " + path;
  const std::string shapes = "cost_volume inputs shape: \nleft: (2, 8, 32) right: (2, 8, 32) ";
  const std::string address = "Physical Address for left, right, and output buffer: ";
  const Lines addresses = {address, "268435456", "268439552", "1073741824"};
  const Lines expected[] = {
      {"Open the device: 0", load, build, "Open successfully ", "CORR_FPGA Execution Start",
       "FPGA CORR Time Cost: #ms"},
      Lines{shapes, "6", "Open the device: 0", load, build, "Cu_name: Corr:{Corr_1}", "TEST CORR",
            "Open successfully ", "TEST CORR", "TEST CORR"} +
          addresses + Lines{"CORR_FPGA Execution Start", "FD", "FPGA CORR Time Cost: #ms", "64"},
      Lines{shapes, "6", "Open the device0", load, build} + addresses +
          Lines{"CORR_FPGA Execution Start", "FPGA CORR Time Cost: #ms"}};
  for (const Way way : kWays) {
    const LogCapture log(1);
    maps_.Run(way);
    Lines lines = log.Messages();
    for (std::string& line : lines) {
      line = std::regex_replace(line, std::regex("Cost: [0-9.e-]+ms"), "Cost: #ms");
    }
    const auto start = std::find(lines.begin(), lines.end(), "CORR_FPGA Execution Start");
    if (way == Way::kOneShot && lines.end() - start > 1) {
      EXPECT_TRUE(std::regex_match(start[1], std::regex("[0-9]+")));  // the descriptor
      start[1] = "FD";
    }
    EXPECT_THAT(lines, ElementsAreArray(expected[static_cast<int>(way)])) << NameOf(way);
  }
}

TEST_F(FpgaProtocol, EnvironmentReplacesPathAndUnitEvenWhenEmpty) {
  const struct {
    const char *path, *unit, *failing_call;
  } cases[] = {{"", nullptr, "xrt::device::load_xclbin"},
               {"/nowhere", nullptr, "xrt::device::load_xclbin /nowhere"},
               {nullptr, "", "xrt::kernel::kernel  1"},
               {nullptr, "Corr:{Corr_2}", "xrt::kernel::kernel Corr:{Corr_2} 1"}};
  for (const auto& c : cases) {
    if (c.path != nullptr) setenv("xclbin_path", c.path, 1);
    if (c.unit != nullptr) setenv("cu_name", c.unit, 1);
    emulated_board::StartRecording();
    EXPECT_THROW(Kernel_FPGA(0, 512, 64), std::runtime_error);
    EXPECT_THAT(TakeLines(), Contains(c.failing_call));
    unsetenv("xclbin_path");
    unsetenv("cu_name");
  }
}

TEST_F(FpgaProtocol, PollsAtEachWaysOwnInterval) {
  board_.settings.ends_at_once = false;
  board_.settings.run_time =
      std::chrono::milliseconds(250);  // many sleeps, even on a loaded machine
  board_.Apply();
  for (const Way way : kWays) {
    SCOPED_TRACE(NameOf(way));
    const std::string interval = way == Way::kOneShot ? "2000000" : "100000";
    const std::string rest = way == Way::kOneShot ? "1000000" : "50000";
    emulated_board::FailCall("nanosleep", 2);  // the second sleep is interrupted half way
    emulated_board::StartRecording();
    const auto busy_before = emulated_board::GetStatus().kernel_time;
    const auto start = std::chrono::steady_clock::now();
    maps_.Run(way);
    const auto took = std::chrono::steady_clock::now() - start;
    const auto busy = emulated_board::GetStatus().kernel_time - busy_before;
    EXPECT_GE(busy, std::chrono::milliseconds(250));
    EXPECT_LT(took - busy, std::chrono::seconds(1));  // an interval, emulated on a loaded machine
    Lines sleeps;
    for (const auto& call : emulated_board::TakeRecording()) {
      if (call.name == "nanosleep") sleeps.push_back(call.detail);
    }
    ASSERT_GE(sleeps.size(), 4U);
    EXPECT_EQ(sleeps[2], rest);
    sleeps.erase(sleeps.begin() + 2);
    EXPECT_THAT(sleeps, Each(interval));
  }
}

TEST_F(FpgaProtocol, AnyWordButOneEndsTheRunWithoutASleep) {
  for (const std::uint32_t value : {0U, 2U, 3U, 0x101U, 0xFFFFFFFFU}) {
    board_.settings.end_value = value;
    board_.Apply();
    for (const Way way : kWays) {
      emulated_board::FailCall("nanosleep");
      maps_.Run(way);
      EXPECT_EQ(emulated_board::ClearFaults(), 1U) << NameOf(way) << " slept for " << value;
      EXPECT_EQ(maps_.cost, maps_.Expected());
    }
  }
}

TEST_F(FpgaProtocol, BadSizesAreRefusedBeforeAnythingIsOpened) {
  emulated_board::StartRecording();
  for (const auto& [input, output] :
       {std::pair{0, 64}, {512, 0}, {-1, 64}, {512, std::numeric_limits<int>::min()}}) {
    EXPECT_THROW(Kernel_FPGA(0, input, output), std::invalid_argument);
  }
  std::uint8_t byte = 0;
  const struct {
    std::uint32_t height, width, channels, disparities;
  } shapes[] = {{0, 8, 32, 4}, {2, 8, 32, 0}, {0x10000, 0x8000, 1, 1}};
  for (const auto& s : shapes) {
    using Frame = StereoMaps::Frame;
    const auto map = Frame::Create(kQXPixelFormatUint8, &byte, s.height, s.width, s.channels);
    const auto out = Frame::Create(kQXPixelFormatUint8, &byte, s.height, s.width, s.disparities);
    for (const auto one_shot : {CostVolume_FPGA, CostVolume_FPGA_old}) {
      EXPECT_THROW(one_shot(map.get(), map.get(), out.get(), "", "", 0), std::invalid_argument);
    }
  }
  EXPECT_TRUE(emulated_board::TakeRecording().empty());
}

TEST_F(FpgaProtocol, OneShotsEndTheProcessForFramesThatDoNotFit) {
  const StereoMaps other({2, 8, 64, 4});
  const auto right = maps_.right;
  for (const Way way : {Way::kOneShot, Way::kOld}) {
    maps_.right = other.right;
    EXPECT_DEATH(maps_.Run(way),
                 "Check failed: input_l->DataSize\\(\\) == input_r->DataSize\\(\\) "
                 "\\(512 vs. 1024\\) ?The two inputs' size not same, please check\\.");
    maps_.right = right;
    right->pixel_format = kQXPixelFormatGray8;
    EXPECT_DEATH(maps_.Run(way),
                 "Check failed: QXPixelFormat::kQXPixelFormatUint8 == input_l->pixel_format && "
                 ".*output->pixel_format input_l, input_r, output pixel format must be Uint8 17");
    right->pixel_format = kQXPixelFormatUint8;
  }
}

TEST_F(FpgaProtocol, RightShapeIsIgnoredAndNothingIsWrittenBeyondTheOutput) {
  auto& cost = maps_.cost;
  cost.resize(80, 0xEE);
  const auto expected = maps_.Expected();
  maps_.output = StereoMaps::Frame::Create(kQXPixelFormatUint8, cost.data(), 2, 8, 4);
  maps_.output->scale = 0.125F;
  maps_.right = StereoMaps::Frame::Create(kQXPixelFormatUint8, maps_.right_bytes.data(), 1, 1, 512);
  maps_.right->scale = 0.25F;
  for (const Way way : {Way::kOneShot, Way::kOld}) {
    std::fill(cost.begin(), cost.end(), 0xEE);
    maps_.Run(way);
    EXPECT_TRUE(std::equal(cost.begin(), cost.begin() + 64, expected.begin()));
    EXPECT_EQ(std::count(cost.begin() + 64, cost.end(), 0xEE), 16);
  }
}

}  // namespace
}  // namespace image
}  // namespace utils
}  // namespace qx
