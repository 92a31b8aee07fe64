#include "board/emulated/compute_unit.h"

#include <glog/logging.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>

#include "board/emulated/correlation_model.h"
#include "board/emulated/hex.h"
#include "board/register_access.h"

namespace qx::board {
namespace {

constexpr std::uint32_t kControlOffset = 0;
constexpr std::uint32_t kRunning = 1;
constexpr std::uint32_t kErrorValue = 0x80000006;  // control word after a run that failed

// How soon a start is noticed: at once for kAlertPeriod after inputs were sent, otherwise after up
// to kRest.
constexpr std::chrono::milliseconds kAlertPeriod{1};
constexpr std::chrono::microseconds kRest{200};

// Limit of the run time; a longer one would overflow the clock.
constexpr std::chrono::hours kLongest{24 * 365};

}  // namespace

void ComputeUnit::Unmapper::operator()(volatile std::uint32_t* registers) const {
  munmap(const_cast<std::uint32_t*>(registers), kRegisterBlockBytes);
}

void ComputeUnit::Program(const Container& container) {
  Lock lock(mutex_);
  abandon_ = true;
  changed_.notify_all();
  changed_.wait(lock, [this] { return !statistics_.running; });
  abandon_ = false;
  ReserveMemory(container.geometry);
  void* map = mmap(nullptr, kRegisterBlockBytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory_.fd(),
                   static_cast<off_t>(PageOf(container.base_address)));
  if (map == MAP_FAILED) {
    throw std::system_error(errno, std::generic_category(), "emulated board: cannot map registers");
  }
  registers_.reset(static_cast<volatile std::uint32_t*>(map));
  for (std::uint32_t offset = 0; offset < kRegisterBlockBytes; offset += 4) {
    StoreWord(Register(offset), 0);
  }
  container_ = container;
  if (watched_) return;
  std::thread([this] { Watch(); }).detach();
  watched_ = true;
}

// Reserves address space only: a large geometry takes memory in its first run.
void ComputeUnit::ReserveMemory(const emulated_board::Geometry& geometry) {
  const std::size_t pixels = std::size_t{geometry.height} * geometry.width;
  for (auto* map : {&left_, &right_}) {
    map->clear();
    map->reserve(pixels * geometry.channels);
  }
  cost_.clear();
  cost_.reserve(pixels * geometry.disparities);
}

void ComputeUnit::Configure(const emulated_board::Settings& settings) {
  const Lock lock(mutex_);
  settings_ = settings;
}

void ComputeUnit::Attach() {
  {
    const Lock lock(mutex_);
    ++statistics_.handles;
  }
  changed_.notify_all();
}

void ComputeUnit::Detach() {
  {
    const Lock lock(mutex_);
    --statistics_.handles;
  }
  changed_.notify_all();
}

void ComputeUnit::ExpectStart() {
  {
    const Lock lock(mutex_);
    alert_until_ = Clock::now() + kAlertPeriod;
  }
  changed_.notify_all();
}

std::uint32_t ComputeUnit::ReadRegister(std::uint32_t offset) const {
  const Lock lock(mutex_);
  return LoadWord(Register(offset));
}

void ComputeUnit::WriteRegister(std::uint32_t offset, std::uint32_t value) {
  {
    const Lock lock(mutex_);
    StoreWord(Register(offset), value);
  }
  if (offset == kControlOffset) AfterControlStore();
}

void ComputeUnit::AfterControlStore() {
  Lock lock(mutex_);
  if (settings_.ends_at_once) changed_.wait(lock, [this] { return !HasStarted() || hung_; });
}

void ComputeUnit::EndHungRun() {
  {
    const Lock lock(mutex_);
    hung_ = false;
  }
  changed_.notify_all();
}

ComputeUnit::Statistics ComputeUnit::GetStatistics() const {
  const Lock lock(mutex_);
  return statistics_;
}

volatile std::uint32_t* ComputeUnit::Register(std::uint32_t offset) const {
  return registers_.get() + offset / sizeof(std::uint32_t);
}

bool ComputeUnit::HasStarted() const {
  return registers_ && LoadWord(Register(kControlOffset)) == kRunning;
}

void ComputeUnit::Watch() {
  Lock lock(mutex_);
  while (true) {
    if (HasStarted()) {
      Run(lock);
    } else {
      Rest(lock);
    }
  }
}

void ComputeUnit::Rest(Lock& lock) {
  if (statistics_.handles == 0) {
    changed_.wait(lock, [this] { return statistics_.handles != 0 || HasStarted(); });
    return;
  }
  if (Clock::now() >= alert_until_) {
    changed_.wait_for(lock, kRest);
    return;
  }
  lock.unlock();
  std::this_thread::yield();
  lock.lock();
}

void ComputeUnit::Run(Lock& lock) {
  const Clock::time_point start = Clock::now();
  alert_until_ = {};
  statistics_.running = true;
  log_.Note("unit.start", "");
  hung_ = log_.IsFaultDue("unit.hang");
  const bool fails = log_.IsFaultDue("unit.error");
  const Job job = LatchJob();
  bool computed = false;
  if (!fails) {
    lock.unlock();
    computed = Compute(job);
    lock.lock();
  }
  if (fails) LOG(ERROR) << "emulated board: the run ends with an error value (injected fault)";
  changed_.wait_until(lock,
                      start + std::min<std::chrono::microseconds>(settings_.run_time, kLongest),
                      [this] { return abandon_; });
  changed_.notify_all();
  changed_.wait(lock, [this] { return abandon_ || !hung_; });

  if (abandon_) {
    StoreWord(Register(kControlOffset), 0);
  } else {
    FinishRun(job, computed);
  }
  statistics_.kernel_time += Clock::now() - start;
  statistics_.running = hung_ = false;
  changed_.notify_all();
}

ComputeUnit::Job ComputeUnit::LatchJob() const {
  // The unit takes 32-bit addresses: the registers above them have no effect.
  const auto value = [this](std::size_t i) {
    return LoadWord(Register(container_.arguments[i].offset));
  };
  return {value(0), value(1), value(2), value(3)};
}

bool ComputeUnit::Compute(const Job& job) {
  const auto& geometry = container_.geometry;
  const std::size_t pixels = std::size_t{geometry.height} * geometry.width;
  left_.resize(pixels * geometry.channels);
  right_.resize(pixels * geometry.channels);
  if (!memory_.Read(job.left, left_.data(), left_.size()) ||
      !memory_.Read(job.right, right_.data(), right_.size())) {
    LOG(ERROR) << "emulated board: the kernel needs " << left_.size() << " bytes at each of "
               << Hex(job.left) << " and " << Hex(job.right)
               << ", but no such buffers exist; do their sizes match the container's geometry?";
    return false;
  }
  Correlate(geometry, left_, right_, job.exponent, cost_);
  return true;
}

void ComputeUnit::FinishRun(const Job& job, bool computed) {
  std::uint32_t value = kErrorValue;
  if (computed && memory_.Write(job.output, cost_.data(), cost_.size())) {
    value = settings_.end_value;
  } else if (computed) {
    LOG(ERROR) << "emulated board: the kernel writes " << cost_.size() << " bytes at "
               << Hex(job.output)
               << ", but no such buffer exists; does its size match the container's geometry?";
  }
  ++statistics_.runs;
  log_.Note("unit.end", "");
  StoreWord(Register(kControlOffset), value);
}

}  // namespace qx::board
