#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qxtools/stereo_matcher.h"
#include "tools/commands.h"
#include "tools/messages.h"
#include "tools/progress.h"
#include "tools/stereo_disparity.h"
#include "tools/stereo_evaluation.h"
#include "tools/stereo_output.h"
#include "tools/stereo_source.h"

namespace qx::tools {
namespace {

// The PGM samples hold 255 + a fraction (see kPgmScale).
constexpr int kMostDisparities = 256;

// Percent of the pixels without a reliable match from which on something is wrong with the pair, or
// it has hardly any texture. Rectified pairs of textured scenes have 9 to 36; pairs of raw cameras
// and swapped ones have 81 to 97; one whose rows are off by two has 52.
constexpr double kSuspicious = 50;

struct StereoOptions {
  std::string left;
  std::string right;
  std::string folder;
  int disparities = 64;
  std::size_t frames = 0;  // 0: all
  std::string ground_truth;
  double ground_truth_scale = 1;
  std::string backend = "cpu";
};

// Time that has gone into each stage so far.
struct StageTimes {
  using Duration = std::chrono::duration<double>;
  Duration decode{0}, features{0}, cost{0}, disparity{0}, write{0};
};

// Adds the time from its construction to its destruction to one stage.
class StageTimer {
 public:
  explicit StageTimer(StageTimes::Duration& stage) : stage_(stage) {}
  ~StageTimer() { stage_ += std::chrono::steady_clock::now() - start_; }
  StageTimer(const StageTimer&) = delete;
  StageTimer& operator=(const StageTimer&) = delete;

 private:
  StageTimes::Duration& stage_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

struct MatchResult {
  DisparityMap measured;  // with kMissing where no reliable match was found
  DisparityMap filled;    // the same without gaps
};

std::shared_ptr<velkar::vision::ImageFrame> FrameOf(const GrayPicture& picture) {
  return velkar::vision::ImageFrameImpl::Create(
      kQXPixelFormatGray8, const_cast<std::uint8_t*>(picture.luma.data()),
      static_cast<std::uint32_t>(picture.height), static_cast<std::uint32_t>(picture.width), 1);
}

DisparityMap MapOf(const velkar::vision::ImageFrame& frame) {
  DisparityMap map(static_cast<int>(frame.Width()), static_cast<int>(frame.Height()));
  const auto* values = reinterpret_cast<const std::uint16_t*>(frame.Data());
  std::transform(values, values + map.values.size(), map.values.begin(), [](std::uint16_t value) {
    return value == utils::stereo::kMissingDisparity
               ? kMissing
               : static_cast<float>(value) / utils::stereo::kDisparityUnits;
  });
  return map;
}

MatchResult Match(utils::stereo::StereoMatcher& matcher, const PicturePair& pair,
                  StageTimes& times) {
  const auto result = matcher.Match(FrameOf(pair.left), FrameOf(pair.right));
  const utils::stereo::StereoTimes last = matcher.LastTimes();
  times.features += StageTimes::Duration(last.features);
  times.cost += StageTimes::Duration(last.cost);
  times.disparity += StageTimes::Duration(last.aggregation + last.selection + last.filling);
  return {MapOf(*result.disparity), MapOf(*result.filled)};
}

std::string FramePath(const StereoOptions& options, std::size_t frame, const char* ending) {
  std::array<char, 32> name = {};
  std::snprintf(name.data(), name.size(), "disparity-%04zu", frame);
  return (std::filesystem::path(options.folder) / name.data()).string() + ending;
}

void WriteFrame(const StereoOptions& options, const DisparityMap& map, std::size_t frame) {
  WritePngFile(map, options.disparities, FramePath(options, frame, ".png"));
  WritePgmFile(map, FramePath(options, frame, ".pgm"));
}

void PrintStage(const char* name, StageTimes::Duration time, std::size_t frames) {
  const double seconds = time.count();
  const double count = static_cast<double>(frames);
  std::printf("  %-10s %10.1f %10.1f\n", name, 1000 * seconds / count,
              seconds > 0 ? count / seconds : 0.0);
}

void PrintTimes(const StageTimes& times, std::size_t frames) {
  std::printf("  %-10s %10s %10s\n", "stage", "ms/frame", "frames/s");
  PrintStage("decode", times.decode, frames);
  PrintStage("features", times.features, frames);
  PrintStage("cost", times.cost, frames);
  PrintStage("disparity", times.disparity, frames);
  PrintStage("write", times.write, frames);
  PrintStage("all", times.decode + times.features + times.cost + times.disparity + times.write,
             frames);
}

void PrintErrors(const char* when, const Errors& errors) {
  std::printf("  %-10s %8.2f %% %8.2f %% %8.2f %%\n", when, 100 * errors.missing,
              100 * errors.above_1, 100 * errors.above_2);
}

// The accuracy of the first frame: the one that a ground truth describes.
void PrintAccuracy(const StereoOptions& options, const MatchResult& result,
                   const GrayPicture& truth) {
  const Errors measured = Evaluate(result.measured, truth, options.ground_truth_scale);
  const Errors filled = Evaluate(result.filled, truth, options.ground_truth_scale);
  std::printf("  %-10s %10s %10s %10s   of the known pixels of frame 0; missing counts as off\n",
              "filling", "missing", "off > 1", "off > 2");
  PrintErrors("before", measured);
  PrintErrors("after", filled);
}

// Of all frames.
struct StereoTotals {
  StageTimes times;
  std::size_t pixels = 0;
  std::size_t missing = 0;  // pixels without a reliable match
  std::string size;
};

void Report(const StereoOptions& options, const PairReader& reader, const StereoTotals& totals) {
  std::printf("%s of %s, disparities 0 .. %d, in '%s'\n", Count(reader.Count(), "frame").c_str(),
              totals.size.c_str(), options.disparities - 1, options.folder.c_str());
  const double missing =
      100 * static_cast<double>(totals.missing) / static_cast<double>(totals.pixels);
  std::printf("%.1f %% of the pixels have no reliable match; their surroundings fill them\n",
              missing);
  PrintTimes(totals.times, reader.Count());
  reader.ReportDamage();
  if (missing < kSuspicious) return;
  PrintWarning(
      "most pixels have no reliable match: check that the pair is rectified, that left is left, "
      "and "
      "that --disparities " +
      std::to_string(options.disparities) + " is enough");
}

PairReader Open(const StereoOptions& options, StageTimes& times) {
  const StageTimer timer(times.decode);  // a picture file is decoded at once
  return PairReader(options.left, options.right, options.frames);
}

void MatchAll(const StereoOptions& options) {
  std::optional<GrayPicture> truth;
  if (!options.ground_truth.empty()) truth = ReadPicture(options.ground_truth);
  utils::stereo::StereoOptions matching;
  matching.disparities = options.disparities;
  if (options.backend == "fpga") matching.backend = utils::stereo::StereoBackend::kFpga;
  utils::stereo::StereoMatcher matcher(matching);
  Progress progress(options.frames);
  StereoTotals totals;
  PairReader reader = Open(options, totals.times);
  OutputFolder folder(options.folder);
  const auto next = [&] {
    const StageTimer timer(totals.times.decode);
    return reader.Next();
  };
  while (const auto pair = next()) {
    const std::size_t frame = reader.Count() - 1;
    const MatchResult result = Match(matcher, *pair, totals.times);
    if (truth && frame == 0) PrintAccuracy(options, result, *truth);
    const std::vector<float>& values = result.measured.values;
    totals.pixels += values.size();
    totals.missing += static_cast<std::size_t>(std::count(values.begin(), values.end(), kMissing));
    totals.size = std::to_string(pair->left.width) + " x " + std::to_string(pair->left.height);
    const StageTimer timer(totals.times.write);
    folder.Create();
    WriteFrame(options, result.filled, frame);
    progress.Update(reader.Count());
  }
  Report(options, reader, totals);
}

std::string CheckScale(const std::string& text) {
  double scale = 0;
  const bool is_number = CLI::detail::lexical_cast(text, scale);
  return is_number && scale > 0 && std::isfinite(scale) ? "" : "'" + text + "' is not above 0";
}

void AddOptions(CLI::App& stereo, StereoOptions& options) {
  stereo
      .add_option("LEFT", options.left,
                  "Left picture (PNG, JPEG, PGM, BMP, TIFF, ...) or H.264 video")
      ->type_name("")
      ->required();
  stereo.add_option("RIGHT", options.right, "Right one: the same size and number of frames")
      ->type_name("")
      ->required();
  stereo.add_option("-o,--output", options.folder, "Folder for the results; made if missing")
      ->type_name("FOLDER")
      ->required();
  auto* disparities =
      stereo.add_option("--disparities", options.disparities, "Search 0 .. N-1 pixels");
  AcceptNumbers(disparities->capture_default_str(), 1, kMostDisparities);
  auto* backend = stereo.add_option("--backend", options.backend,
                                    "Where costs are computed: processor or correlation kernel");
  AcceptChoices(backend->capture_default_str(), {"cpu", "fpga"});
  AcceptNumbers(stereo.add_option("--frames", options.frames,
                                  "Stop after so many frames; default: after all"),
                1);
  auto* truth = stereo.add_option("--ground-truth", options.ground_truth,
                                  "Picture of the first left frame's disparities: grey value = "
                                  "disparity * scale, 0 unknown");
  truth->type_name("FILE");
  stereo.add_option("--gt-scale", options.ground_truth_scale, "Scale of the ground truth")
      ->check(CLI::Validator(CheckScale, ""))
      ->type_name("X")
      ->needs(truth)
      ->capture_default_str();
}

}  // namespace

void AddStereo(CLI::App& app) {
  const auto options = std::make_shared<StereoOptions>();
  CLI::App* stereo =
      app.add_subcommand("stereo", "Match a rectified stereo pair and write disparity pictures");
  AddOptions(*stereo, *options);
  stereo->footer(
      "For each frame the folder receives disparity-NNNN.png, in colour with a legend of 36 rows\n"
      "below the picture, and disparity-NNNN.pgm, 16 bits per pixel, most significant byte first:\n"
      "  value = disparity in pixels * 256, rounded, but at least 1, which also stands for 0\n"
      "          pixels (infinitely far away); at most (N - 1) * 256\n"
      "  depth = focal length in pixels * distance of the cameras * 256 / value\n"
      "Both are without gaps: where the two pictures give no reliable match, the surroundings "
      "fill\n"
      "in. The share of such pixels is printed. Half of them and more is a warning.\n\n"
      "Examples:\n"
      "  qxtools stereo left.h264 right.h264 -o out --disparities 64 --frames 10\n"
      "  qxtools stereo left.png right.png -o out --ground-truth disparity.png --gt-scale 4");
  stereo->callback([options] { MatchAll(*options); });
}

}  // namespace qx::tools
