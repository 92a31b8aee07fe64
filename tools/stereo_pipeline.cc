#include "tools/stereo_pipeline.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <exception>
#include <functional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "tools/channel.h"
#include "tools/console/messages.h"
#include "tools/media/ffmpeg.h"
#include "tools/media/stereo_source.h"
#include "tools/pictures/image_files.h"
#include "tools/pictures/numbered_file.h"
#include "tools/pictures/output_file.h"
#include "tools/stopwatch.h"

namespace qx::tools {
namespace {

using utils::stereo::kMissingDisparity;
using utils::stereo::StereoResult;

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
  void Write(const StereoResult& matches);
  void WriteFile(const char* stem, const char* ending,
                 const std::function<void(OutputFile&)>& write) const;
  void Count(const PairResult& result);

  const StereoJob& job_;
  StereoSummary summary_;
  Image<std::uint8_t> truth_;
  PairMatcher matcher_;
  std::optional<PairReader> reader_;
  OutputDirectory directory_;
  Channel<PicturePair> pairs_;
  Channel<PairResult> results_;
  std::size_t missing_ = 0;
  std::size_t seen_ = 0;
  std::size_t with_depth_ = 0;
};

// With ground truth the gaps are filled in any case, to be compared.
utils::stereo::StereoOptions MatchingOptions(const StereoJob& job) {
  utils::stereo::StereoOptions options = job.matching;
  options.fill = options.fill || !job.ground_truth.empty();
  return options;
}

Pipeline::Pipeline(const StereoJob& job)
    : job_(job),
      matcher_(MatchingOptions(job), job.inputs.calibration, job.depth),
      directory_(job.directory) {
  if (!job.ground_truth.empty()) truth_ = ReadPicture(job.ground_truth);
  const Stopwatch watch(summary_.decode);  // picture files are decoded here
  const StereoInputs& inputs = job.inputs;
  reader_.emplace(inputs.left, inputs.right, inputs.frames,
                  job.depth.points ? Colours::kLeft : Colours::kNone);
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
  while (const auto pair = pairs_.Pop()) {
    if (!results_.Push(matcher_.Match(*pair))) return;
  }
}

void Pipeline::WriteAll() {
  Progress progress(reader_->Expected());
  while (const auto result = results_.Pop()) {
    Count(*result);
    const Stopwatch watch(summary_.write);
    directory_.Create();
    Write(result->matches);
    if (job_.depth.IsWanted()) {
      WriteDepth(job_.depth, result->depth, job_.directory, summary_.frames);
    }
    progress.Update(++summary_.frames);
  }
}

void Pipeline::Count(const PairResult& result) {
  const DisparityImage map = ImageOf(*result.matches.disparity);
  const auto missing = std::count(map.values.begin(), map.values.end(), kMissingDisparity);
  missing_ += static_cast<std::size_t>(missing) - result.unseen;
  seen_ += map.values.size() - result.unseen;
  with_depth_ += result.depth.known;
  summary_.width = map.width;
  summary_.height = map.height;
  if (summary_.frames > 0 || truth_.values.empty()) return;
  summary_.before = Evaluate(map, truth_, job_.ground_truth_scale);
  summary_.after = Evaluate(ImageOf(*result.matches.filled), truth_, job_.ground_truth_scale);
}

void Pipeline::Write(const StereoResult& matches) {
  const DisparityImage map = ImageOf(job_.matching.fill ? *matches.filled : *matches.disparity);
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
  if (!job_.matching.confidence) return;
  Image<std::uint8_t> confidence(map.width, map.height);
  std::copy_n(matches.confidence->Data(), confidence.values.size(), confidence.values.begin());
  WriteFile("confidence", ".png", [&](OutputFile& file) { WritePng(confidence, file); });
}

void Pipeline::WriteFile(const char* stem, const char* ending,
                         const std::function<void(OutputFile&)>& write) const {
  WriteNumbered(job_.directory, stem, summary_.frames, ending, write);
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
  summary_.stages = matcher_.Times();
  summary_.missing = static_cast<double>(missing_) / static_cast<double>(seen_);
  summary_.with_depth = static_cast<double>(with_depth_) / static_cast<double>(seen_);
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
