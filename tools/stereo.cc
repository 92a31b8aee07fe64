#include <array>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "tools/commands.h"
#include "tools/progress.h"
#include "tools/stereo_evaluation.h"
#include "tools/stereo_matcher.h"
#include "tools/stereo_output.h"
#include "tools/stereo_source.h"

namespace qx {
namespace tools {
namespace {

// The PGM samples hold 255 + a fraction (see kPgmScale).
constexpr int kMostDisparities = 256;

struct StereoOptions {
  std::string left;
  std::string right;
  std::string folder;
  int disparities = 64;
  std::size_t frames = 0;  // 0: all
  std::string ground_truth;
  double ground_truth_scale = 1;
  Backend backend = Backend::kCpu;
};

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

void MatchAll(const StereoOptions& options) {
  std::optional<GrayPicture> truth;
  if (!options.ground_truth.empty()) truth = ReadPicture(options.ground_truth);
  StereoMatcher matcher(options.disparities, options.backend);
  Progress progress(options.frames);
  StageTimes times;
  const auto open = [&] {  // decodes a picture file at once
    const StageTimer timer(times.decode);
    return PairReader(options.left, options.right, options.frames);
  };
  PairReader reader = open();
  std::error_code error;
  std::filesystem::create_directories(options.folder, error);
  if (error) throw std::system_error(error, "cannot make the folder '" + options.folder + "'");
  const auto next = [&] {
    const StageTimer timer(times.decode);
    return reader.Next();
  };
  std::string size;
  while (const auto pair = next()) {
    const std::size_t frame = reader.Count() - 1;
    const MatchResult result = matcher.Match(pair->left, pair->right, times);
    if (truth && frame == 0) PrintAccuracy(options, result, *truth);
    const StageTimer timer(times.write);
    WriteFrame(options, result.filled, frame);
    size = std::to_string(pair->left.width) + " x " + std::to_string(pair->left.height);
    progress.Update(reader.Count());
  }
  std::printf("%zu frames of %s, %d disparities, in '%s'\n", reader.Count(), size.c_str(),
              options.disparities, options.folder.c_str());
  PrintTimes(times, reader.Count());
}

void AddOptions(CLI::App& stereo, StereoOptions& options) {
  stereo.add_option("LEFT", options.left, "Left picture (PNG, PGM, JPEG) or H.264 video")
      ->required();
  stereo.add_option("RIGHT", options.right, "Right one: the same size and number of frames")
      ->required();
  stereo.add_option("-o,--output", options.folder, "Folder for the results; made if missing")
      ->required();
  stereo.add_option("--disparities", options.disparities, "Search 0 .. N-1 pixels")
      ->check(CLI::Range(1, kMostDisparities))
      ->capture_default_str();
  stereo.add_option("--backend", options.backend, "Where costs are computed: cpu or fpga")
      ->transform(CLI::CheckedTransformer(
          std::map<std::string, Backend>{{"cpu", Backend::kCpu}, {"fpga", Backend::kFpga}}))
      ->default_str("cpu");
  stereo.add_option("--frames", options.frames, "Number of frames to match; default: all")
      ->check(CLI::PositiveNumber);
  auto* truth = stereo.add_option("--ground-truth", options.ground_truth,
                                  "Picture of the first left frame's disparities: grey value = "
                                  "disparity * scale, 0 unknown");
  stereo.add_option("--gt-scale", options.ground_truth_scale, "Scale of the ground truth")
      ->check(CLI::PositiveNumber)
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
      "For each frame the folder receives disparity-NNNN.png, in colour with a legend in pixels,\n"
      "and disparity-NNNN.pgm, 16 bits per pixel: disparity * 256. Both are without gaps: where\n"
      "the two pictures give no reliable match, the surroundings fill in.\n\n"
      "Examples:\n"
      "  qxtools stereo left.h264 right.h264 -o out --disparities 64 --frames 10\n"
      "  qxtools stereo left.png right.png -o out --ground-truth disparity.png --gt-scale 4");
  stereo->callback([options] { MatchAll(*options); });
}

}  // namespace tools
}  // namespace qx
