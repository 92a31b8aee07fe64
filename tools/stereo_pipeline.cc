#include "tools/stereo_pipeline.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <exception>
#include <filesystem>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "tools/console/messages.h"
#include "tools/media/ffmpeg.h"
#include "tools/media/stereo_source.h"
#include "tools/pictures/image_files.h"
#include "tools/pictures/output_file.h"

namespace qx::tools {
namespace {

using utils::stereo::kMissingDisparity;
using utils::stereo::StereoResult;

constexpr std::size_t kAhead = 2;  // pairs that wait between two stages

// Adds the time from its construction to its destruction to a number of seconds.
class Stopwatch {
 public:
  explicit Stopwatch(double& seconds) : seconds_(seconds) {}
  ~Stopwatch() {
    seconds_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  double& seconds_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// Hands items from one thread to the next one.
template <typename T>
class Channel {
 public:
  // Waits while the channel is full. Returns: false when it is closed; the item is then dropped.
  bool Push(T item) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || items_.size() < kAhead; });
    if (closed_) return false;
    items_.push_back(std::move(item));
    changed_.notify_all();
    return true;
  }

  // Waits while the channel is empty. Returns: nothing when it is closed, too.
  std::optional<T> Pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || !items_.empty(); });
    if (items_.empty()) return std::nullopt;
    std::optional<T> item(std::move(items_.front()));
    items_.pop_front();
    changed_.notify_all();
    return item;
  }

  // Called by either side: no item will follow, or none is wanted.
  void Close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<T> items_;
  bool closed_ = false;
};

DisparityImage ImageOf(const velkar::vision::ImageFrame& map) {
  DisparityImage image(static_cast<int>(map.Width()), static_cast<int>(map.Height()));
  const auto* const values = reinterpret_cast<const std::uint16_t*>(map.Data());
  std::copy_n(values, image.values.size(), image.values.begin());
  return image;
}

class Pipeline {
 public:
  explicit Pipeline(const StereoJob& job);

  StereoSummary Run();

 private:
  void Decode();
  void Match();
  void WriteAll();
  void Write(const StereoResult& result);
  void WriteFile(const char* stem, const char* ending,
                 const std::function<void(OutputFile&)>& write) const;
  void Count(const StereoResult& result);

  const StereoJob& job_;
  StereoSummary summary_;
  Image<std::uint8_t> truth_;
  const bool keep_gaps_;
  utils::stereo::StereoMatcher matcher_;
  std::optional<PairReader> reader_;
  OutputDirectory directory_;
  Channel<PicturePair> pairs_;
  Channel<StereoResult> results_;
  std::size_t missing_ = 0;
};

// With ground truth the gaps are filled in any case, to be compared.
utils::stereo::StereoOptions MatchingOptions(const StereoJob& job) {
  utils::stereo::StereoOptions options = job.matching;
  options.fill = options.fill || !job.ground_truth.empty();
  return options;
}

Pipeline::Pipeline(const StereoJob& job)
    : job_(job),
      keep_gaps_(!job.matching.fill),
      matcher_(MatchingOptions(job)),
      directory_(job.directory) {
  if (!job.ground_truth.empty()) truth_ = ReadPicture(job.ground_truth);
  const Stopwatch watch(summary_.decode);  // picture files are decoded here
  reader_.emplace(job.left, job.right, job.frames);
}

void Pipeline::Decode() {
  const auto next = [this] {
    const Stopwatch watch(summary_.decode);
    return reader_->Next();
  };
  while (auto pair = next()) {
    if (!pairs_.Push(std::move(*pair))) return;
  }
}

void Pipeline::Match() {
  utils::stereo::StereoTimes& sum = summary_.matching;
  while (const auto pair = pairs_.Pop()) {
    StereoResult result = matcher_.Match(pair->left, pair->right);
    const utils::stereo::StereoTimes times = matcher_.LastTimes();
    sum.features += times.features;
    sum.cost += times.cost;
    sum.aggregation += times.aggregation;
    sum.selection += times.selection;
    sum.filling += times.filling;
    if (!results_.Push(std::move(result))) return;
  }
}

void Pipeline::WriteAll() {
  Progress progress(reader_->Expected());
  while (const auto result = results_.Pop()) {
    Count(*result);
    Write(*result);
    progress.Update(++summary_.frames);
  }
}

void Pipeline::Count(const StereoResult& result) {
  const DisparityImage map = ImageOf(*result.disparity);
  missing_ +=
      static_cast<std::size_t>(std::count(map.values.begin(), map.values.end(), kMissingDisparity));
  summary_.width = map.width;
  summary_.height = map.height;
  if (summary_.frames > 0 || truth_.values.empty()) return;
  summary_.before = Evaluate(map, truth_, job_.ground_truth_scale);
  summary_.after = Evaluate(ImageOf(*result.filled), truth_, job_.ground_truth_scale);
}

void Pipeline::Write(const StereoResult& result) {
  const Stopwatch watch(summary_.write);
  directory_.Create();
  const DisparityImage map = ImageOf(keep_gaps_ ? *result.disparity : *result.filled);
  WriteFile("disparity", ".png", [&](OutputFile& file) {
    WritePng(Paint(map, {job_.matching.first_disparity, job_.matching.disparities}), file);
  });
  if (job_.format == "pgm") {
    WriteFile("disparity", ".pgm", [&](OutputFile& file) { WritePgm(SamplesOf(map), file); });
  } else if (job_.format == "pfm") {
    WriteFile("disparity", ".pfm", [&](OutputFile& file) { WritePfm(PixelsOf(map), file); });
  } else {
    WriteFile("disparity", "-16bit.png", [&](OutputFile& file) { WritePng(SamplesOf(map), file); });
  }
  if (!result.confidence) return;
  Image<std::uint8_t> confidence(map.width, map.height);
  std::copy_n(result.confidence->Data(), confidence.values.size(), confidence.values.begin());
  WriteFile("confidence", ".png", [&](OutputFile& file) { WritePng(confidence, file); });
}

void Pipeline::WriteFile(const char* stem, const char* ending,
                         const std::function<void(OutputFile&)>& write) const {
  std::array<char, 48> name = {};
  std::snprintf(name.data(), name.size(), "%s-%04zu", stem, summary_.frames);
  OutputFile file((std::filesystem::path(job_.directory) / name.data()).string() + ending);
  write(file);
  file.Commit();
}

// Runs a stage on a thread of its own and then closes its channels. Keeps what it throws.
template <typename Stage, typename... Channels>
std::thread Start(std::exception_ptr& failure, Stage stage, Channels&... channels) {
  return std::thread([&failure, stage, &channels...] {
    try {
      stage();
    } catch (...) {
      failure = std::current_exception();
    }
    (channels.Close(), ...);
  });
}

StereoSummary Pipeline::Run() {
  std::exception_ptr decoding, matching, writing;
  {
    const Stopwatch watch(summary_.elapsed);
    std::thread decoder = Start(
        decoding, [this] { Decode(); }, pairs_);
    std::thread matcher = Start(
        matching, [this] { Match(); }, pairs_, results_);
    try {
      WriteAll();
    } catch (...) {
      writing = std::current_exception();
    }
    results_.Close();
    pairs_.Close();
    reader_->Cancel();
    matcher.join();
    decoder.join();
  }
  // A later stage fails at an earlier pair.
  for (const auto& failure : {writing, matching, decoding}) {
    if (failure) std::rethrow_exception(failure);
  }
  reader_->ReportDamage();
  summary_.missing = static_cast<double>(missing_) / static_cast<double>(summary_.frames) /
                     summary_.width / summary_.height;
  return summary_;
}

}  // namespace

Accuracy Evaluate(const DisparityImage& map, const Image<std::uint8_t>& truth, double scale) {
  if (truth.width != map.width || truth.height != map.height) {
    throw std::runtime_error("the ground truth is " + std::to_string(truth.width) + " x " +
                             std::to_string(truth.height) + ", the pictures are " +
                             std::to_string(map.width) + " x " + std::to_string(map.height));
  }
  std::size_t known = 0, missing = 0, off_1 = 0, off_2 = 0;
  for (std::size_t i = 0; i < map.values.size(); ++i) {
    if (truth.values[i] == 0) continue;
    const bool is_missing = map.values[i] == kMissingDisparity;
    const double disparity = static_cast<double>(map.values[i]) / utils::stereo::kDisparityUnits;
    const double error = std::fabs(disparity - truth.values[i] / scale);
    ++known;
    missing += is_missing;
    off_1 += is_missing || error > 1;
    off_2 += is_missing || error > 2;
  }
  if (known == 0) throw std::runtime_error("the ground truth has no known disparity");
  const auto share = [known](std::size_t n) {
    return static_cast<double>(n) / static_cast<double>(known);
  };
  return {share(missing), share(off_1), share(off_2)};
}

StereoSummary RunStereo(const StereoJob& job) { return Pipeline(job).Run(); }

}  // namespace qx::tools
