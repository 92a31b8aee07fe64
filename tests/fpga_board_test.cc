// The emulated board itself: containers, handles, memory, and that it computes what the processor
// computes.
#include <cstdlib>
#include <fstream>

#include "platform/emulated/board_environment.h"
#include "tests/testing/fpga_runs.h"
#include "tests/testing/temp_path.h"
#include "tests/testing/test.h"
#include "xrt/xrt_bo.h"
#include "xrt/xrt_device.h"
#include "xrt/xrt_kernel.h"

namespace qx {
namespace utils {
namespace image {
namespace {

using emulated_board::Geometry;

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
  text.replace(text.find(from), from.size(), to);
  return text;
}

// A container file that Kernel_FPGA and the command find through the environment.
class ContainerFile {
 public:
  explicit ContainerFile(const std::string& text) : path(testing::TempPath("fpga.container")) {
    std::ofstream(path) << text;
    setenv("xclbin_path", path.c_str(), 1);
  }
  ~ContainerFile() {
    unsetenv("xclbin_path");
    std::remove(path.c_str());
  }
  ContainerFile(const ContainerFile&) = delete;
  ContainerFile& operator=(const ContainerFile&) = delete;

  const std::string path;
};

// A product of exactly 2^-e, e >= 0, gives the processor's bytes; so does a product of zero. Others
// between 0 and 1 act as the next larger power of two.
TEST(FpgaBoard, ComputesWhatTheProcessorComputes) {
  const Geometry shapes[] = {{3, 40, 32, 16}, {2, 17, 96, 33}, {1, 5, 48, 9},   {4, 3, 31, 2},
                             {1, 1, 64, 1},   {2, 9, 2048, 4}, {5, 70, 160, 64}};
  const struct {
    float product, acts_as;
  } cases[] = {{1.0F, 1.0F},           {0.5F, 0.5F},         {0x1p-5F, 0x1p-5F},
               {0x1p-7F, 0x1p-7F},     {0x1p-20F, 0x1p-20F}, {0x1p-126F, 0x1p-126F},
               {0x1p-140F, 0x1p-140F}, {0.0F, 0.0F},         {0.01F, 0x1p-6F}};
  for (const Geometry& shape : shapes) {
    const BoardScope board(shape);
    StereoMaps maps(shape, shape.width);
    std::fill_n(maps.left_bytes.begin(), shape.channels, 0x80);  // the extremes, too
    std::fill_n(maps.right_bytes.begin(), shape.channels, 0x80);
    Kernel_FPGA kernel(0, maps.input_size(), maps.output_size());
    for (const auto& c : cases) {
      maps.SetScales(c.product, 1.0F, 1.0F);
      maps.RunOn(kernel);
      maps.SetScales(c.acts_as, 1.0F, 1.0F);
      EXPECT_EQ(maps.cost, maps.Expected())
          << shape.width << 'x' << shape.channels << ", product " << c.product;
    }
  }
}

TEST(FpgaBoard, ContainerTextsAreChecked) {
  EXPECT_NO_THROW(emulated_board::CheckContainer(kContainer));
  const struct {
    const char *from, *to, *error;
  } cases[] = {
      {"{", "", "parse error"},
      {"container 1", "container 2", "\"format\" must be"},
      {"\"kernel\": \"Corr\"", "\"kernel\": 5", "type must be string"},
      {"\"kernel\": \"Corr\",", "", "'kernel' not found"},
      {"\"0xA0000000\"", "\"0xFFFF8000\"", "base_address"},
      {"\"0xA0000000\"", "\"A0000000\"", "must be a non-negative number"},
      {"\"0xA0000000\"", "\"0xA00000000000000000\"", "must be a non-negative number"},
      {"\"0xA0000000\"", "-4", "must be a non-negative number"},
      {"\"height\": 2", "\"height\": 0", "no dimension"},
      {"\"height\": 2", "\"height\": 4294967295", "2^31 - 1"},
      {"\"height\": 2", "\"height\": 4294967296", "exceeds 32 bits"},
      {"\"offset\": 16", "\"offset\": 0", "argument 0: the offset"},
      {"\"offset\": 16", "\"offset\": 18", "argument 0: the offset"},
      {"\"offset\": 16", "\"offset\": 65536", "argument 0: the offset"},
      {"\"offset\": 40", "\"offset\": 16", "argument 2: offset used twice"},
      {"40, \"group\": 1", "40, \"group\": 7", "argument 2: no memory group 7"},
      {"{\"offset\": 16, \"group\": 0}, ", "", "\"arguments\" must list"},
      {"12288", "100", "memory group 1: base and size"},
      {"12288", "\"0xC0001000\"", "memory group 1: must lie below 4 GiB"},
      {"12288", "\"0x60001000\"", "memory group 1: overlaps"},
      {"\"0x40000000\"", "\"0x10000000\"", "memory group 1: overlaps"},
  };
  for (const auto& c : cases) {
    try {
      emulated_board::CheckContainer(Replaced(c.from, c.to));
      ADD_FAILURE() << "accepted: " << c.to;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr(c.error)) << c.to;
    }
  }
}

TEST(FpgaBoard, ContainerFileDecidesAddressesOffsetsAndGeometry) {
  const BoardScope board({1, 1, 1, 1});
  std::string text = Replaced("\"0xA0000000\"", "\"0xB0000010\"");  // low bits do not count
  text.replace(text.find("\"offset\": 16"), 12, "\"offset\": 256");
  const ContainerFile file(text);
  StereoMaps maps({2, 8, 32, 4});
  maps.Run(Way::kObject);
  EXPECT_EQ(maps.cost, maps.Expected());

  const CorrelationUnit unit = DescribeCorrelationUnit(0);
  EXPECT_EQ(unit.base_address, 0xB0000010U);
  EXPECT_THAT(unit.offsets, ElementsAre(256, 0x1C, 40, 52));
  EXPECT_THAT(unit.memory_groups, ElementsAre(0, 0, 1));
  const emulated_board::Status status = emulated_board::GetStatus();
  EXPECT_EQ(status.container, file.path);
  EXPECT_EQ(status.geometry.channels, 32U);
  EXPECT_FALSE(status.built_in);

  // The one-shot looks for the registers at their usual place, where nothing answers.
  SetKernelTimeLimit(std::chrono::milliseconds(10));
  EXPECT_THROW(maps.Run(Way::kOneShot, kUnitName, file.path.c_str()), KernelTimeout);
  maps.Run(Way::kOld, kUnitName, file.path.c_str());
  EXPECT_EQ(maps.cost, maps.Expected());
}

TEST(FpgaBoard, ARegisterOutsideThePageIsRefusedNotTouched) {
  const BoardScope board;
  const ContainerFile file(Replaced("\"offset\": 52", "\"offset\": 4096"));
  StereoMaps maps({2, 8, 32, 4});
  EXPECT_THROW(maps.Run(Way::kObject), std::out_of_range);
}

TEST(FpgaBoard, WhatCannotBeLoadedOrBoundSaysWhy) {
  const BoardScope board;
  const ContainerFile other_kernel(Replaced("\"Corr\"", "\"Warp\""));
  const auto error_of = [](const char* container, int device) -> std::string {
    try {
      StereoMaps({2, 8, 32, 4}).Run(Way::kOneShot, "", container, device);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_THAT(error_of(kContainerPath, 1), HasSubstr("no device 1"));
  EXPECT_THAT(error_of("/nowhere", 0), HasSubstr("cannot open the container '/nowhere'"));
  EXPECT_THAT(error_of("/proc/self/exe", 0), HasSubstr("no container of an emulated board"));
  EXPECT_THAT(error_of(other_kernel.path.c_str(), 0), HasSubstr("which has 'Warp:{Corr_1}'"));
  setenv("cu_name", "Warp:{Corr_1}", 1);  // binds, but it is not the kernel whose address is asked
  EXPECT_THROW(Kernel_FPGA(0, 512, 64), std::runtime_error);
  unsetenv("cu_name");
  const ContainerFile small(Replaced("8192", "4096"));  // room for one page of inputs
  EXPECT_THROW(Kernel_FPGA(0, 512, 64), std::runtime_error);
}

TEST(FpgaBoard, ExclusiveAndSharedHandlesExcludeEachOther) {
  const BoardScope board;
  StereoMaps maps({2, 8, 32, 4});
  using Mode = xrt::kernel::cu_access_mode;
  xrt::device device(0);
  const xrt::uuid container = device.load_xclbin(kContainerPath);
  {
    const Kernel_FPGA first(0, 512, 64), second(0, 512, 64);
    EXPECT_THROW(maps.Run(Way::kOld), std::runtime_error);
    EXPECT_NO_THROW(maps.Run(Way::kOneShot));
    xrt::kernel shared(device, device.load_xclbin(kContainerPath), kUnitName, Mode::shared);
    EXPECT_THROW(shared.write_register(0x10, 0), std::runtime_error);
    emulated_board::Settings other = board.settings;
    other.geometry.width = 9;
    emulated_board::SetSettings(other);  // another container, while the unit is open
    EXPECT_THROW(maps.Run(Way::kOneShot), std::runtime_error);
    board.Apply();
  }
  const xrt::uuid reloaded = device.load_xclbin(kContainerPath);
  EXPECT_THROW(xrt::kernel(device, container, kUnitName, Mode::shared), std::runtime_error);
  xrt::kernel exclusive(device, reloaded, kUnitName, Mode::exclusive);
  EXPECT_THROW(maps.Run(Way::kOld), std::runtime_error);
  EXPECT_THROW(maps.Run(Way::kObject), std::runtime_error);
  EXPECT_THROW(exclusive.write_register(65536, 0), std::runtime_error);
  EXPECT_THROW((void)exclusive.read_register(2), std::runtime_error);
  EXPECT_THROW((void)exclusive.offset(4), std::runtime_error);
}

TEST(FpgaBoard, OnlySynchronisingMakesTheCopiesOfABufferEqual) {
  xrt::device device(0);
  device.load_xclbin(kContainerPath);
  xrt::bo buffer(device, 8, xrt::bo::flags::normal, 0);
  const auto value = [&] {
    std::uint64_t bytes = 0;
    buffer.read(&bytes, 8, 0);
    return bytes;
  };
  const std::uint64_t one = 1, two = 2;
  buffer.write(&one, 8, 0);
  buffer.sync(kSyncToDevice, 8, 0);
  buffer.write(&two, 8, 0);
  EXPECT_EQ(value(), 2U);
  buffer.sync(kSyncFromDevice, 8, 0);
  EXPECT_EQ(value(), 1U);
  EXPECT_THROW(buffer.write(&one, 8, 1), std::runtime_error);
  EXPECT_THROW(buffer.sync(kSyncToDevice, 9, 0), std::runtime_error);
  EXPECT_LT(buffer.address(), std::uint64_t{1} << 32);
  for (const std::size_t bytes : {std::size_t{0}, std::size_t{0x40000000}, ~std::size_t{0}}) {
    EXPECT_THROW(xrt::bo(device, bytes, xrt::bo::flags::normal, 0), std::runtime_error) << bytes;
  }
  EXPECT_THROW(xrt::bo(device, 8, xrt::bo::flags::normal, 9), std::runtime_error);
}

// Buffers are reused when they have been released, and never overlap.
TEST(FpgaBoard, MemoryIsHandedOutOnce) {
  xrt::device device(0);
  device.load_xclbin(kContainerPath);
  const auto make = [&](std::size_t bytes) {
    return std::make_unique<xrt::bo>(device, bytes, xrt::bo::flags::normal, 0U);
  };
  auto a = make(4097), b = make(1), c = make(4096);
  const std::uint64_t base = a->address();
  EXPECT_EQ(b->address(), base + 8192);
  EXPECT_EQ(c->address(), base + 12288);
  a.reset();
  EXPECT_EQ(make(8193)->address(), base + 16384);  // the gap is too small
  EXPECT_EQ(make(8192)->address(), base);
  EXPECT_EQ(emulated_board::GetStatus().buffer_bytes, 4097U);
}

TEST(FpgaBoard, BuffersThatDoNotMatchTheGeometryAreReported) {
  const BoardScope board({2, 8, 32, 4});
  const struct {
    Geometry maps;
    const char* error = "";
  } cases[] = {{{1, 8, 32, 8}, "the kernel needs 512 bytes"},
               {{2, 8, 32, 2}, "the kernel writes 64 bytes at 0x40000000"}};
  for (const auto& c : cases) {
    StereoMaps maps(c.maps);
    const LogCapture log;
    maps.Run(Way::kOld);
    EXPECT_THAT(log.Messages(google::ERROR), ElementsAre(HasSubstr(c.error)));
  }
}

TEST(FpgaBoard, SettingsComeFromTheEnvironmentAndAreChecked) {
  const struct {
    const char *name, *value;
    std::uint32_t width;
    int run_time;
    std::size_t faults, errors;
  } cases[] = {
      {"QXTOOLS_BOARD_GEOMETRY", "4x5x32x7", 5, 0, 0, 0},
      {"QXTOOLS_BOARD_GEOMETRY", "4x5x32", 320, 0, 0, 1},
      {"QXTOOLS_BOARD_GEOMETRY", "4x0x32x7", 320, 0, 0, 1},
      {"QXTOOLS_BOARD_GEOMETRY", "4x5x32x7 ", 320, 0, 0, 1},
      {"QXTOOLS_BOARD_RUN_TIME_US", "2500", 320, 2500, 0, 0},
      {"QXTOOLS_BOARD_RUN_TIME_US", "-1", 320, 0, 0, 1},
      {"QXTOOLS_BOARD_FAULTS", "open,xrt::bo::sync@2", 320, 0, 2, 0},
      {"QXTOOLS_BOARD_FAULTS", "open@,opne,open@0,mmap@x", 320, 0, 0, 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    setenv(c.name, c.value, 1);
    const LogCapture log;
    platform::CallLog calls;
    const emulated_board::Settings settings = platform::SettingsFromEnvironment();
    platform::InjectFaultsFromEnvironment(calls);
    EXPECT_EQ(settings.geometry.width, c.width);
    EXPECT_EQ(settings.run_time.count(), c.run_time);
    EXPECT_EQ(calls.ClearFaults(), c.faults);
    EXPECT_EQ(log.Messages(google::ERROR).size(), c.errors);
    unsetenv(c.name);
  }
  emulated_board::Settings bad[3];
  bad[0].end_value = 1;
  bad[1].run_time = std::chrono::microseconds(-1);
  bad[2].geometry.channels = 0;
  for (const auto& settings : bad) {
    EXPECT_THROW(emulated_board::SetSettings(settings), std::invalid_argument);
  }
}

}  // namespace
}  // namespace image
}  // namespace utils
}  // namespace qx
