#include "qx_utils/stereo/kernels/semi_global.h"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>
#include <new>
#include <thread>

#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::utils::stereo {
namespace {

constexpr SemiGlobalVariant kVariants[] = {
#if defined(__x86_64__)
    {"avx512vnni", internal::kCpuAvx512Vnni, &kSemiGlobalAvx512},
    {"avx2", internal::kCpuAvx2, &kSemiGlobalAvx2},
#elif defined(__aarch64__)
    {"neon", internal::kCpuNeon, &kSemiGlobalNeon},
#endif
    {"scalar", 0, &kSemiGlobalScalar},
};

constexpr std::size_t kLine = kSemiGlobalAlignment;
constexpr std::size_t kPasses = 2;

// Half a perfect match, whose correlation is 124.
constexpr int kUnknownCost = (128 - 62) / 2;

// A jump costs half where two grey values differ by this, and never less than a fifth.
constexpr int kEdge = 20;
constexpr int kCheapest = 5;

// Bytes of a volume that are computed before they are read: they stay in the second cache.
constexpr std::size_t kBand = std::size_t{192} * 1024;

// Columns after which a thread tells how far it has come.
constexpr std::size_t kStride = 64;

std::size_t RoundUp(std::size_t bytes, std::size_t unit) {
  return (bytes + unit - 1) / unit * unit;
}

void SetPrices(int jump, SemiGlobalPlan& plan) {
  for (std::size_t i = 0; i + 1 < kJumpPrices; ++i) {
    const int difference = static_cast<int>(i * kGreyPerPrice);
    plan.prices[i] = static_cast<std::uint8_t>(jump * kEdge / (kEdge + difference));
  }
  plan.prices[kJumpPrices - 1] = static_cast<std::uint8_t>(jump / kCheapest);
}

// `rows`: the most rows of a pass that are worked on at a time.
SemiGlobalPlan PlanOf(const SemiGlobalKernel& kernel, const SemiGlobalJob& job, std::size_t rows) {
  SemiGlobalPlan plan{};
  plan.width = job.width;
  plan.disparities = job.disparities;
  plan.first_disparity = job.first_disparity;
  plan.paths = static_cast<std::size_t>(job.paths);
  plan.cells = kernel.cells(job.disparities);
  plan.pitch = plan.cells + kernel.gap;
  // A row that starts takes a slot that none of the rows before it still needs.
  plan.slots = job.width + rows;
  const int slant = std::min(job.slant, kMaxSlant);
  const int jump = std::min(job.jump, kMaxPenalties - slant);
  plan.slant = static_cast<std::uint8_t>(slant);
  plan.limit = static_cast<std::uint8_t>(255 - slant - jump);
  plan.unknown_cost = std::min(static_cast<std::uint8_t>(kUnknownCost), plan.limit);
  SetPrices(jump, plan);
  return plan;
}

// Hands out parts of a block, or adds up how large it must be if that is null.
class Carver {
 public:
  explicit Carver(std::uint8_t* block) : block_(block) {}

  // Returns: `bytes` bytes, at least `before` bytes after and a cache line before other parts.
  std::uint8_t* Take(std::size_t bytes, std::size_t before = 0) {
    used_ += RoundUp(before, kLine);
    std::uint8_t* const part = block_ == nullptr ? nullptr : block_ + used_;
    used_ += RoundUp(bytes, kLine) + kLine;
    return part;
  }
  std::size_t Used() const { return used_; }

 private:
  std::uint8_t* block_;
  std::size_t used_ = 0;
};

// How far a thread has come: number of its row x (width + 1) + columns. Alone in its cache line.
struct alignas(kLine) Progress {
  std::atomic<std::size_t> columns{0};
};

// What the threads of a pass share.
struct PassMemory {
  std::uint8_t* paths[kRowPaths];
  PathMinima* minima[2];  // of rows with an even and with an odd number
  Progress* progress;     // of each thread
};

// What a thread has for itself.
struct ThreadMemory {
  std::uint8_t* horizontal;
  std::uint8_t* grey[2];
  std::uint8_t* last;
  std::uint8_t* sums;
  std::uint8_t* selection;
};

std::size_t LastColumns(const SemiGlobalPlan& plan) {
  const std::size_t unread = plan.cells - plan.disparities;
  return std::min(plan.width, (unread + plan.disparities - 1) / plan.disparities);
}

std::size_t SumBytes(const SemiGlobalPlan& plan) {
  return (plan.width + 1 + kSelectionBlock) * plan.pitch;
}

std::size_t MinimaBytes(const SemiGlobalPlan& plan) {
  return (plan.width + 1) * sizeof(PathMinima);
}

PassMemory CarvePass(const SemiGlobalPlan& plan, std::size_t threads, Carver& carver) {
  PassMemory memory{};
  for (auto& paths : memory.paths) paths = carver.Take(plan.slots * plan.pitch, kLine);
  for (auto& minima : memory.minima) {
    minima = reinterpret_cast<PathMinima*>(carver.Take(MinimaBytes(plan), sizeof(PathMinima)));
  }
  memory.progress = reinterpret_cast<Progress*>(carver.Take(threads * sizeof(Progress)));
  return memory;
}

ThreadMemory CarveThread(const SemiGlobalPlan& plan, Carver& carver) {
  ThreadMemory memory{};
  memory.horizontal = carver.Take(plan.cells);
  for (auto& grey : memory.grey) {
    grey = carver.Take(plan.width + kSemiGlobalSpare, kSemiGlobalSpare);
  }
  memory.last = carver.Take(LastColumns(plan) * plan.disparities + plan.cells);
  memory.sums = carver.Take(SumBytes(plan));
  memory.selection = carver.Take(kSelectionArrays * (plan.width + kSelectionSpare));
  if (memory.sums != nullptr) memory.sums += plan.pitch;
  return memory;
}

// Every path begins before the first row: what lies before it costs nothing.
void BeginPass(const SemiGlobalPlan& plan, std::size_t threads, const PassMemory& memory) {
  for (std::uint8_t* paths : memory.paths) {
    std::memset(paths - kLine, 255 - plan.slant, kLine + plan.slots * plan.pitch);
    for (std::size_t slot = 0; slot < plan.slots; ++slot) {
      std::memset(paths + slot * plan.pitch, 0, plan.cells);
    }
  }
  for (PathMinima* minima : memory.minima) {
    std::memset(minima - 1, 0, MinimaBytes(plan) + sizeof(PathMinima));
  }
  for (std::size_t t = 0; t < threads; ++t) new (memory.progress + t) Progress;
}

void BeginThread(const SemiGlobalPlan& plan, const ThreadMemory& memory) {
  for (std::uint8_t* grey : memory.grey) {
    std::memset(grey - kSemiGlobalSpare, 0, plan.width + 2 * kSemiGlobalSpare);
  }
  std::memset(memory.last, -128, LastColumns(plan) * plan.disparities + plan.cells);
  std::memset(memory.sums - plan.pitch, 255, SumBytes(plan));
}

// Where the rows of sums go.
class Sink {
 public:
  virtual void Row(std::size_t y, const ThreadMemory& memory) const = 0;

 protected:
  ~Sink() = default;
};

class SelectingSink final : public Sink {
 public:
  SelectingSink(const SemiGlobalKernel& kernel, const SemiGlobalPlan& plan,
                std::uint16_t* disparity, std::uint8_t* confidence)
      : kernel_(kernel), plan_(plan), disparity_(disparity), confidence_(confidence) {}

  void Row(std::size_t y, const ThreadMemory& memory) const override {
    kernel_.select(plan_, {memory.sums, memory.selection, disparity_ + y * plan_.width,
                           confidence_ == nullptr ? nullptr : confidence_ + y * plan_.width});
  }

 private:
  const SemiGlobalKernel& kernel_;
  const SemiGlobalPlan& plan_;
  std::uint16_t* const disparity_;
  std::uint8_t* const confidence_;
};

class CopyingSink final : public Sink {
 public:
  CopyingSink(const SemiGlobalPlan& plan, std::uint16_t* sums) : plan_(plan), sums_(sums) {}

  void Row(std::size_t y, const ThreadMemory& memory) const override {
    for (std::size_t x = 0; x < plan_.width; ++x) {
      std::copy_n(memory.sums + x * plan_.pitch, plan_.disparities,
                  sums_ + (y * plan_.width + x) * plan_.disparities);
    }
  }

 private:
  const SemiGlobalPlan& plan_;
  std::uint16_t* const sums_;
};

// A job, its memory and its threads. Two passes meet: one runs down and visits columns from left to
// right, the other runs up and visits them from right to left, and each has the paths that come
// from behind. In the first half of the rows a pass stores its half of the sums. After that they
// have met, and in the second half each finds the other's half and completes the sums.
class Matching {
 public:
  Matching(const SemiGlobalKernel& kernel, const SemiGlobalJob& job, const CorrelationRows& rows,
           SemiGlobalScratch& scratch)
      : kernel_(kernel),
        job_(job),
        rows_(rows),
        threads_(Threads(job)),
        plan_(PlanOf(kernel, job, threads_)) {
    Carver measure(nullptr);
    Carve(measure, false);
    Carver carver(scratch.Take(measure.Used()));
    Carve(carver, true);
  }

  const SemiGlobalPlan& Plan() const { return plan_; }

  void Run(const Sink& sink) {
#pragma omp parallel num_threads(static_cast <int>(threads_))
    RunThread(static_cast<std::size_t>(omp_get_thread_num()),
              static_cast<std::size_t>(omp_get_num_threads()), sink);
  }

 private:
  // A thread of a pass: works on rows member, member + team, ...
  struct Member {
    std::size_t pass;
    std::size_t member;
    std::size_t team;
    std::size_t thread;
  };

  static std::size_t Threads(const SemiGlobalJob& job);

  void Carve(Carver& carver, bool keep);
  ThreadMemory MemoryOf(std::size_t thread) const;
  void RunThread(std::size_t thread, std::size_t threads, const Sink& sink);
  void RunRows(const Member& member, std::size_t first, std::size_t end, const Sink* sink);
  void Provide(const Member& member, std::size_t number, std::size_t end) const;
  PassRow Prepare(const Member& member, std::size_t number, const ThreadMemory& memory) const;
  void Extend(const Member& member, const PassRow& row) const;

  // The row of the picture that a pass visits as its `number`-th.
  std::size_t RowOf(std::size_t pass, std::size_t number) const {
    return pass == 0 ? number : job_.height - 1 - number;
  }

  const SemiGlobalKernel& kernel_;
  const SemiGlobalJob& job_;
  const CorrelationRows& rows_;
  const std::size_t threads_;
  const SemiGlobalPlan plan_;
  std::uint8_t* halves_ = nullptr;
  PassMemory passes_[kPasses] = {};
  std::uint8_t* thread_block_ = nullptr;
  std::size_t thread_bytes_ = 0;
};

// More threads than this would wait for each other: a row follows the one before by two strides.
std::size_t Matching::Threads(const SemiGlobalJob& job) {
  const std::size_t rows = std::min(job.height, 1 + job.width / (2 * kStride));
  const auto most = static_cast<std::size_t>(std::max(1, omp_get_max_threads()));
  return std::min(most, kPasses * rows);
}

void Matching::Carve(Carver& carver, bool keep) {
  std::uint8_t* const halves = carver.Take(job_.height * job_.width * plan_.cells);
  PassMemory passes[kPasses];
  for (auto& pass : passes) pass = CarvePass(plan_, threads_, carver);
  Carver measure(nullptr);
  CarveThread(plan_, measure);
  std::uint8_t* const block = carver.Take(threads_ * measure.Used());
  if (!keep) return;
  halves_ = halves;
  std::copy(std::begin(passes), std::end(passes), passes_);
  thread_block_ = block;
  thread_bytes_ = measure.Used();
}

ThreadMemory Matching::MemoryOf(std::size_t thread) const {
  Carver carver(thread_block_ + thread * thread_bytes_);
  return CarveThread(plan_, carver);
}

// Of one thread only, all parts are run one after the other.
void Matching::RunThread(std::size_t thread, std::size_t threads, const Sink& sink) {
  BeginThread(plan_, MemoryOf(thread));
  for (std::size_t pass = thread; pass < kPasses; pass += threads) {
    BeginPass(plan_, threads_, passes_[pass]);
  }
  const std::size_t half[kPasses] = {job_.height / 2, job_.height - job_.height / 2};
  for (const bool second : {false, true}) {
#pragma omp barrier
    for (std::size_t pass = 0; pass < kPasses; ++pass) {
      if (threads > 1 && thread % kPasses != pass) continue;
      const std::size_t team = threads == 1 ? 1 : (threads - pass + 1) / kPasses;
      const Member member{pass, thread / kPasses, team, thread};
      if (second) {
        RunRows(member, half[pass], job_.height, &sink);
      } else {
        RunRows(member, 0, half[pass], nullptr);
      }
    }
  }
}

void Matching::RunRows(const Member& member, std::size_t first, std::size_t end, const Sink* sink) {
  const ThreadMemory memory = MemoryOf(member.thread);
  const std::size_t ahead = (member.member + member.team - first % member.team) % member.team;
  for (std::size_t number = first + ahead; number < end; number += member.team) {
    if (sink == nullptr) Provide(member, number, end);
    PassRow row = Prepare(member, number, memory);
    row.sums = sink == nullptr ? nullptr : memory.sums;
    Extend(member, row);
    if (sink != nullptr) sink->Row(RowOf(member.pass, number), memory);
  }
}

// Has the volume's row computed. A thread that has all rows of a pass computes a band at a time.
void Matching::Provide(const Member& member, std::size_t number, std::size_t end) const {
  if (rows_.compute == nullptr) return;
  const std::size_t fitting = std::max<std::size_t>(1, kBand / (job_.width * job_.disparities));
  const std::size_t band = member.team > 1 ? 1 : fitting;
  if (number % band != 0) return;
  const std::size_t count = std::min(band, end - number);
  const std::size_t a = RowOf(member.pass, number);
  const std::size_t b = RowOf(member.pass, number + count - 1);
  rows_.compute(rows_.context, std::min(a, b), std::max(a, b) + 1, member.thread);
}

PassRow Matching::Prepare(const Member& member, std::size_t number,
                          const ThreadMemory& memory) const {
  const std::size_t y = RowOf(member.pass, number);
  const std::size_t y_before = number == 0 ? y : RowOf(member.pass, number - 1);
  const PassMemory& pass = passes_[member.pass];
  PassRow row{};
  row.correlation = job_.correlation + y * job_.width * job_.disparities;
  row.last_columns = LastColumns(plan_);
  const std::size_t last_bytes = row.last_columns * job_.disparities;
  std::memcpy(memory.last, row.correlation + job_.width * job_.disparities - last_bytes,
              last_bytes);
  row.last = reinterpret_cast<const std::int8_t*>(memory.last);
  row.halves = halves_ + y * job_.width * plan_.cells;
  std::memcpy(memory.grey[0], job_.guide.data + y * job_.guide.pitch, job_.width);
  std::memcpy(memory.grey[1], job_.guide.data + y_before * job_.guide.pitch, job_.width);
  row.grey = memory.grey[0];
  row.grey_before = memory.grey[1];
  std::copy(std::begin(pass.paths), std::end(pass.paths), row.paths);
  const std::size_t turn = number % plan_.slots;
  const std::size_t begins[] = {(plan_.slots - turn) % plan_.slots,
                                (plan_.width - 1 + turn) % plan_.slots};
  std::memset(row.paths[0] + begins[0] * plan_.pitch, 0, plan_.cells);
  std::memset(row.paths[2] + begins[1] * plan_.pitch, 0, plan_.cells);
  std::memset(memory.horizontal, 0, plan_.cells);
  row.horizontal = memory.horizontal;
  row.minima_before = pass.minima[(number + 1) % 2];
  row.minima = pass.minima[number % 2];
  row.number = number;
  row.step = member.pass == 0 ? 1 : -1;
  return row;
}

// Waits until another thread has come as far as `columns`.
void WaitFor(const Progress& progress, std::size_t columns) {
  constexpr int kPatience = 2000;
  for (int n = 0; progress.columns.load(std::memory_order_acquire) < columns; ++n) {
    if (n > kPatience) std::this_thread::yield();
  }
}

// A row needs the row before to be a column ahead; with one thread it is complete.
void Matching::Extend(const Member& member, const PassRow& row) const {
  const std::size_t width = plan_.width;
  if (member.team == 1) return kernel_.extend(plan_, row, 0, width);
  Progress* const progress = passes_[member.pass].progress;
  for (std::size_t done = 0; done < width;) {
    const std::size_t next = std::min(done + kStride, width);
    if (row.number > 0) {
      WaitFor(progress[(row.number - 1) % member.team],
              (row.number - 1) * (width + 1) + std::min(next + 1, width));
    }
    if (row.step > 0) {
      kernel_.extend(plan_, row, done, next);
    } else {
      kernel_.extend(plan_, row, width - next, width - done);
    }
    done = next;
    progress[member.member].columns.store(row.number * (width + 1) + done,
                                          std::memory_order_release);
  }
}

}  // namespace

std::uint8_t* SemiGlobalScratch::Take(std::size_t bytes) {
  if (bytes > size_) {
    block_.reset();
    size_ = 0;
    block_.reset(new std::uint8_t[bytes + kLine]);
    size_ = bytes;
  }
  const auto address = reinterpret_cast<std::uintptr_t>(block_.get());
  return block_.get() + (RoundUp(address, kLine) - address);
}

const SemiGlobalVariant* SemiGlobalVariants(std::size_t* count) {
  *count = sizeof(kVariants) / sizeof(kVariants[0]);
  return kVariants;
}

void MatchVolume(const SemiGlobalKernel& kernel, const SemiGlobalJob& job,
                 const CorrelationRows& rows, SemiGlobalScratch& scratch, std::uint16_t* disparity,
                 std::uint8_t* confidence) {
  Matching matching(kernel, job, rows, scratch);
  matching.Run(SelectingSink(kernel, matching.Plan(), disparity, confidence));
}

void AggregateCosts(const SemiGlobalKernel& kernel, const SemiGlobalJob& job,
                    SemiGlobalScratch& scratch, std::uint16_t* sums) {
  const CorrelationRows complete;
  Matching matching(kernel, job, complete, scratch);
  matching.Run(CopyingSink(matching.Plan(), sums));
}

void SelectDisparities(const SemiGlobalKernel& kernel, const std::uint16_t* sums, std::size_t width,
                       std::size_t height, std::size_t disparities, std::size_t first_disparity,
                       SemiGlobalScratch& scratch, std::uint16_t* disparity,
                       std::uint8_t* confidence) {
  const SemiGlobalJob job{nullptr,       {},           width, height, disparities, first_disparity,
                          kDefaultSlant, kDefaultJump, 8};
  const SemiGlobalPlan plan = PlanOf(kernel, job, 1);
  const SelectingSink sink(kernel, plan, disparity, confidence);
  Carver measure(nullptr);
  CarveThread(plan, measure);
  const std::size_t bytes = measure.Used();
  const auto threads = static_cast<std::size_t>(std::max(1, omp_get_max_threads()));
  std::uint8_t* const block = scratch.Take(threads * bytes);
#pragma omp parallel num_threads(static_cast <int>(threads))
  {
    Carver carver(block + static_cast<std::size_t>(omp_get_thread_num()) * bytes);
    const ThreadMemory memory = CarveThread(plan, carver);
    BeginThread(plan, memory);
#pragma omp for schedule(static)
    for (std::size_t y = 0; y < height; ++y) {
      const std::uint16_t* from = sums + y * width * disparities;
      for (std::size_t x = 0; x < width; ++x, from += disparities) {
        std::transform(
            from, from + disparities, memory.sums + x * plan.pitch,
            [](std::uint16_t sum) { return static_cast<std::uint8_t>(std::min<int>(sum, 255)); });
      }
      sink.Row(y, memory);
    }
  }
}

}  // namespace qx::utils::stereo
