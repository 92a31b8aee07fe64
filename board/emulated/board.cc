#include "board/emulated/board.h"

#include <glog/logging.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <ios>
#include <stdexcept>
#include <system_error>

#include "board/emulated/board_environment.h"
#include "qxtools/fpga_correlation.h"

namespace qx::board {
namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kMaxContainerBytes = 1 << 20;
constexpr char kHint[] =
    "this qxtools emulates the board; build it with QXTOOLS_DEVICE_RUNTIME=system for a real one";

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error("emulated board: " + what);
}

// Throws if the file exists but is not a regular one of at most kMaxContainerBytes.
void RequireSmallFile(const std::string& path) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (!fs::exists(status)) return;
  if (!fs::is_regular_file(status)) Fail("the container '" + path + "' is not a regular file");
  const std::uintmax_t bytes = fs::file_size(path, error);
  if (error || bytes > kMaxContainerBytes) {
    Fail("the container '" + path + "' is larger than 1 MiB, so not an emulated-board container; " +
         kHint);
  }
}

// Returns: the file's bytes, at most kMaxContainerBytes even if it grows meanwhile.
std::string ReadSmallFile(std::ifstream& file) {
  std::string text;
  char block[4096];
  while (text.size() < kMaxContainerBytes && (file.read(block, sizeof(block)), file.gcount() > 0)) {
    text.append(block, static_cast<std::size_t>(file.gcount()));
  }
  return text;
}

}  // namespace

Board::Board() : settings_(SettingsFromEnvironment()), unit_(memory_, log_) {
  unit_.Configure(settings_);
  InjectFaultsFromEnvironment(log_);
  known_ = IsSetInEnvironment();
}

Board& Board::Get() {
  // Never destroyed: a Kernel_FPGA with a global owner releases its buffers and handles after
  // main().
  static Board& board = *new Board;
  return board;
}

emulated_board::Settings Board::settings() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return settings_;
}

void Board::SetSettings(const emulated_board::Settings& settings) {
  const std::string fault = GeometryFault(BuiltInContainer(settings.geometry));
  if (!fault.empty()) throw std::invalid_argument(fault);
  if (settings.run_time.count() < 0) throw std::invalid_argument("run_time must not be negative");
  if (settings.end_value == 1) throw std::invalid_argument("1 in the control word means running");
  known_ = true;
  const std::lock_guard<std::mutex> lock(mutex_);
  settings_ = settings;
  unit_.Configure(settings);
}

void Board::TellOnce() {
  if (known_.exchange(true)) return;
  LOG(WARNING) << "no real board is used: correlation runs are computed on this processor; "
               << kHint;
}

emulated_board::Status Board::GetStatus() const {
  const ComputeUnit::Statistics unit = unit_.GetStatistics();
  emulated_board::Status status;
  status.open_units = unit.handles;
  status.running = unit.running;
  status.runs = unit.runs;
  status.kernel_time = unit.kernel_time;
  status.transfer_time = std::chrono::nanoseconds(transfer_ns_);
  status.buffers = memory_.buffers();
  status.buffer_bytes = memory_.buffer_bytes();
  const std::lock_guard<std::mutex> lock(mutex_);
  status.container = path_;
  status.built_in = built_in_;
  if (container_) {
    status.geometry = container_->geometry;
    status.memory = container_->memory;
  }
  return status;
}

Container Board::ReadContainer(const std::string& path, bool& built_in) const {
  RequireSmallFile(path);
  std::ifstream file(path, std::ios::binary);
  built_in = !file && path == utils::image::kDefaultXclbinPath;
  if (built_in) return BuiltInContainer(settings_.geometry);
  if (!file) Fail("cannot open the container '" + path + "'");
  const std::string text = ReadSmallFile(file);
  try {
    return ParseContainer(text);
  } catch (const std::exception& error) {
    const std::string hint = text.compare(0, 1, "{") == 0 ? "" : std::string("; ") + kHint;
    Fail("'" + path + "' is not a valid emulated-board container: " + error.what() + hint);
  }
}

std::uint64_t Board::Load(const std::string& path) {
  TellOnce();
  const std::lock_guard<std::mutex> lock(mutex_);
  bool built_in = false;
  const Container container = ReadContainer(path, built_in);
  if (shared_handles_ != 0 || exclusive_handle_) {
    if (container.identity == container_->identity) return id_;
    Fail("cannot load '" + path + "' while a compute unit of '" + path_ + "' is open");
  }
  unit_.Program(container);
  container_ = std::make_shared<const Container>(container);
  path_ = path;
  built_in_ = built_in;
  return ++id_;
}

std::shared_ptr<const Container> Board::container() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!container_) Fail("no container is loaded");
  return container_;
}

void Board::OpenUnit(std::uint64_t id, const std::string& name, bool exclusive) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (id == 0 || id != id_) Fail("another container has been loaded since");
  const std::string unit = container_->kernel + ":{" + container_->instance + '}';
  if (name != unit) {
    Fail("no compute unit '" + name + "' in '" + path_ + "', which has '" + unit + "'");
  }
  if (exclusive_handle_ || (exclusive && shared_handles_ != 0)) {
    Fail("compute unit '" + name + "' is in use" + (exclusive_handle_ ? " exclusively" : ""));
  }
  exclusive_handle_ = exclusive;
  if (!exclusive) ++shared_handles_;
  unit_.Attach();
}

void Board::CloseUnit(bool exclusive) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (exclusive) {
    exclusive_handle_ = false;
  } else {
    --shared_handles_;
  }
  unit_.Detach();
}

std::uint64_t Board::Allocate(std::uint32_t group, std::uint64_t bytes) {
  const auto loaded = container();
  const auto memory = std::find_if(loaded->memory.begin(), loaded->memory.end(),
                                   [&](const auto& each) { return each.group == group; });
  if (memory == loaded->memory.end()) Fail("no memory group " + std::to_string(group));
  const std::uint64_t address = memory_.Allocate(*memory, bytes);
  if (address == 0) {
    Fail("no room for " + std::to_string(bytes) + " bytes in memory group " +
         std::to_string(group));
  }
  return address;
}

}  // namespace qx::board
