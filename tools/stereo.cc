#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "tools/commands.h"
#include "tools/console/messages.h"
#include "tools/depth_arguments.h"
#include "tools/stereo_inputs.h"
#include "tools/stereo_pipeline.h"

namespace qx::tools {
namespace {

using nlohmann::ordered_json;
using utils::stereo::kMaxDisparities;

// Percent of the pixels without a reliable match from which on something is wrong with the pair, or
// it has hardly any texture. Rectified pairs of textured scenes have 9 to 36; pairs of raw cameras
// and swapped ones have 81 to 97; one whose rows are off by two has 52.
constexpr double kSuspicious = 50;

struct StereoArguments {
  StereoInputs inputs;
  DepthArguments depth;
  StereoJob job;
  std::string backend = "cpu";
  std::string paths = "8";
  bool no_fill = false;
  bool json = false;
};

using Stages = std::pair<const char*, double>[9];

void PrintStage(const char* name, double seconds, std::size_t frames) {
  const double count = static_cast<double>(frames);
  std::printf("  %-11s %10.1f %10.1f\n", name, 1000 * seconds / count,
              seconds > 0 ? count / seconds : 0.0);
}

void PrintAccuracy(const char* when, const Accuracy& accuracy) {
  std::printf("  %-11s %8.2f %% %8.2f %% %8.2f %%\n", when, 100 * accuracy.missing,
              100 * accuracy.off_1, 100 * accuracy.off_2);
}

void PrintText(const StereoJob& job, const StereoSummary& summary, const Stages& stages) {
  if (summary.before) {
    std::printf("  %-11s %10s %10s %10s   of the known pixels of frame 0; missing counts as off\n",
                "filling", "missing", "off > 1", "off > 2");
    PrintAccuracy("before", *summary.before);
    PrintAccuracy("after", *summary.after);
  }
  const int first = job.matching.first_disparity;
  std::printf("%s of %d x %d, disparities %d .. %d, in '%s'\n",
              Count(summary.frames, "frame").c_str(), summary.width, summary.height, first,
              first + job.matching.disparities - 1, job.directory.c_str());
  std::printf("%.1f %% of the pixels have no reliable match; %s\n", 100 * summary.missing,
              job.matching.fill ? "their surroundings fill them" : "they are left out");
  if (job.depth.IsWanted()) {
    std::printf("%.1f %% of the pixels have a depth; the unit is %.9g mm\n",
                100 * summary.with_depth, job.depth.millimetres);
  }
  std::printf("  %-11s %10s %10s\n", "stage", "ms/frame", "frames/s");
  for (const auto& [name, seconds] : stages) {
    if (seconds > 0) PrintStage(name, seconds, summary.frames);
  }
  PrintStage("all", summary.elapsed, summary.frames);
}

ordered_json JsonOf(const Accuracy& accuracy) {
  return {{"missing", accuracy.missing}, {"off_1", accuracy.off_1}, {"off_2", accuracy.off_2}};
}

void PrintJson(const StereoJob& job, const StereoSummary& summary, const Stages& stages) {
  ordered_json report = {{"frames", summary.frames},
                         {"width", summary.width},
                         {"height", summary.height},
                         {"disparities", job.matching.disparities}};
  for (const auto& [name, seconds] : stages) {
    report["ms_per_frame"][name] = 1000 * seconds / static_cast<double>(summary.frames);
  }
  if (summary.before) {
    report["accuracy"] = {{"before", JsonOf(*summary.before)}, {"after", JsonOf(*summary.after)}};
  }
  if (job.depth.IsWanted()) {
    report["depth"] = {{"share", summary.with_depth},
                       {"millimetres_per_unit", job.depth.millimetres}};
  }
  PrintReport(report, true);
}

void CheckArguments(const StereoArguments& arguments) {
  const StereoJob& job = arguments.job;
  CheckStereoInputs(arguments.inputs);
  if (job.matching.first_disparity + job.matching.disparities > kMaxDisparities) {
    throw CLI::ValidationError("--disparities",
                               "the largest disparity is " + std::to_string(kMaxDisparities - 1));
  }
}

void RunStereoCommand(StereoArguments& arguments) {
  CheckArguments(arguments);
  StereoJob& job = arguments.job;
  job.inputs = arguments.inputs;
  job.depth = CheckDepth(arguments.depth);
  if (arguments.backend == "fpga") job.matching.backend = utils::stereo::StereoBackend::kFpga;
  job.matching.fill = !arguments.no_fill;
  job.matching.paths = arguments.paths == "4" ? 4 : 8;
  const StereoSummary summary = RunStereo(job);
  const utils::stereo::StereoTimes& matching = summary.stages.matching;
  const Stages stages = {{"decode", summary.decode},
                         {"rectify", summary.stages.rectification},
                         {"features", matching.features},
                         {"cost", matching.cost},
                         {"aggregation", matching.aggregation},
                         {"selection", matching.selection},
                         {"filling", matching.filling},
                         {"depth", summary.stages.depth},
                         {"write", summary.write}};
  arguments.json ? PrintJson(job, summary, stages) : PrintText(job, summary, stages);
  if (100 * summary.missing < kSuspicious) return;
  const bool is_raw = !job.inputs.calibration.empty();
  PrintWarning("most pixels have no reliable match: check " +
               std::string(is_raw ? "the calibration" : "that the pair is rectified") +
               ", that left is left, and that --disparities " +
               std::to_string(job.matching.disparities) + " is enough");
}

void AddTruth(CLI::App& stereo, StereoArguments& arguments) {
  StereoJob& job = arguments.job;
  auto* truth = stereo.add_option("--ground-truth", job.ground_truth,
                                  "Picture of the first left frame's disparities: grey value = "
                                  "disparity * scale, 0 unknown");
  truth->type_name("FILE");
  auto* scale =
      stereo.add_option("--gt-scale", job.ground_truth_scale, "Scale of the ground truth");
  AcceptPositive(scale->needs(truth)->capture_default_str());
}

void AddMatching(CLI::App& stereo, StereoArguments& arguments) {
  utils::stereo::StereoOptions& matching = arguments.job.matching;
  auto* disparities =
      stereo.add_option("--disparities", matching.disparities, "Search N disparities");
  AcceptNumbers(disparities->capture_default_str(), 1, kMaxDisparities);
  auto* first =
      stereo.add_option("--first-disparity", matching.first_disparity, "The smallest of them");
  AcceptNumbers(first->capture_default_str(), 0, kMaxDisparities - 1);
  auto* paths = stereo.add_option("--paths", arguments.paths,
                                  "Directions in which costs are added up; 4 is faster");
  AcceptChoices(paths->capture_default_str(), {"4", "8"});
  auto* backend = stereo.add_option("--backend", arguments.backend,
                                    "Where costs are computed: processor or correlation kernel");
  AcceptChoices(backend->capture_default_str(), {"cpu", "fpga"});
}

void AddOutputs(CLI::App& stereo, StereoArguments& arguments) {
  StereoJob& job = arguments.job;
  stereo.add_option("-o,--output", job.directory, "Directory for the results; created if missing")
      ->type_name("DIR")
      ->required();
  auto* format = stereo.add_option("--format", job.format, "Format of the files to compute with");
  AcceptChoices(format->capture_default_str(), {"pgm", "pfm", "png16"});
  stereo.add_flag("--no-fill", arguments.no_fill, "Leave out pixels without a reliable match");
  stereo.add_flag("--confidence", job.matching.confidence,
                  "Write confidence-NNNN.png: brighter is more reliable");
  stereo.add_flag("--json", arguments.json, "Print a JSON object");
}

}  // namespace

void AddStereo(CLI::App& app) {
  const auto arguments = std::make_shared<StereoArguments>();
  CLI::App* stereo =
      app.add_subcommand("stereo", "Match a stereo pair and write disparity, depth and points");
  auto* calibration = AddStereoInputs(*stereo, arguments->inputs);
  AddTruth(*stereo, *arguments);
  AddMatching(*stereo, *arguments);
  AddOutputs(*stereo, *arguments);
  AddDepth(*stereo, calibration, arguments->depth);
  stereo->footer(
      "For each frame the directory receives disparity-NNNN.png, in colour with a legend of 36\n"
      "rows below the picture, and one file to compute with:\n"
      "  pgm    disparity-NNNN.pgm, 16 bits per pixel, most significant byte first:\n"
      "         value = disparity in pixels * 256, rounded, but at least 1, which also stands for\n"
      "         0 pixels (infinitely far away); 0 where a pixel is left out\n"
      "  png16  disparity-NNNN-16bit.png with the same values\n"
      "  pfm    disparity-NNNN.pfm, floats: disparity in pixels; infinity where a pixel is left\n"
      "         out\n"
      "Depth = focal length in pixels * distance of the cameras / disparity in pixels.\n"
      "With --calibration the pictures are those of raw cameras: they are rectified first, and\n"
      "the results have the size of the rectified left picture, which `qxtools rectify` shows.\n"
      "Files of depth are\n"
      "  pfm    depth-NNNN.pfm, floats, in the calibration's unit: the distance along the optical\n"
      "         axis; NaN where there is no reliable match, infinity for a disparity of 0\n"
      "  png    depth-NNNN.png, 16 bits, in millimetres, 1 .. 65535; 0 where the depth is unknown\n"
      "         or does not fit\n"
      "  ply    points-NNNN.ply, binary: x to the right, y down and z ahead of the rectified left\n"
      "         camera, in the calibration's unit, colours, and confidence if it is computed\n"
      "Only reliable matches have a depth: filling is for disparities.\n"
      "A calibration's unit is that of its translation: metres in ROS files, which is the\n"
      "default, and elsewhere that of the squares of the chessboard. If they count as 1, name\n"
      "their size.\n"
      "Pixels without a reliable match are filled from their surroundings unless --no-fill is\n"
      "given. Their share is printed. If it is half or more, there is a warning.\n"
      "Decoding, matching and writing overlap: \"all\" is what a frame takes from end to end.\n\n"
      "Examples:\n"
      "  qxtools stereo left.h264 right.h264 -o out --disparities 64 --frames 10\n"
      "  qxtools stereo left.png right.png -o out --ground-truth disparity.png --gt-scale 4\n"
      "  qxtools stereo both.mp4 --side-by-side -o out --json | jq .ms_per_frame\n"
      "  qxtools stereo left.jpg right.jpg --calibration intrinsics.yml extrinsics.yml -o out \\\n"
      "    --depth --unit 25mm\n"
      "  qxtools stereo left.mp4 right.mp4 --calibration left.yaml right.yaml -o out \\\n"
      "    --points --farthest 10 --least-confidence 128");
  stereo->callback([arguments] { RunStereoCommand(*arguments); });
}

}  // namespace qx::tools
