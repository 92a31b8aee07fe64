#include <algorithm>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/commands.h"
#include "tools/console/messages.h"
#include "tools/media/stereo_source.h"
#include "tools/pair_rectifier.h"
#include "tools/pictures/image_files.h"
#include "tools/pictures/numbered_file.h"
#include "tools/stereo_inputs.h"

namespace qx::tools {
namespace {

constexpr int kLinePitch = 32;  // rows from one line of both-NNNN.png to the next
constexpr Rgb kLine = {0, 255, 0};

struct RectifyArguments {
  StereoInputs inputs;
  std::string directory;
  bool json = false;
};

template <typename T>
Image<T> ImageOf(const FramePtr& frame) {
  Image<T> image(static_cast<int>(frame->Width()), static_cast<int>(frame->Height()));
  const auto* const pixels = reinterpret_cast<const T*>(frame->Data());
  std::copy_n(pixels, image.values.size(), image.values.begin());
  return image;
}

// A view is grey if it has no colours.
Image<Rgb> InRgb(const FramePtr& luma, const FramePtr& colours) {
  if (colours) return ImageOf<Rgb>(colours);
  Image<Rgb> rgb(static_cast<int>(luma->Width()), static_cast<int>(luma->Height()));
  std::transform(luma->Data(), luma->Data() + rgb.values.size(), rgb.values.begin(),
                 [](std::uint8_t grey) {
                   return Rgb{grey, grey, grey};
                 });
  return rgb;
}

Image<Rgb> SideBySide(const PicturePair& pair) {
  const Image<Rgb> left = InRgb(pair.left, pair.left_colours);
  const Image<Rgb> right = InRgb(pair.right, pair.right_colours);
  Image<Rgb> both(left.width + right.width, left.height);
  for (int y = 0; y < both.height; ++y) {
    Rgb* const row = both.Row(y);
    std::copy_n(left.Row(y), left.width, row);
    std::copy_n(right.Row(y), right.width, row + left.width);
    if (y % kLinePitch == kLinePitch / 2) std::fill_n(row, both.width, kLine);
  }
  return both;
}

class ViewWriter {
 public:
  explicit ViewWriter(const std::string& path) : path_(path), directory_(path) {}

  void Write(const PicturePair& pair, std::size_t number) {
    directory_.Create();
    WriteView("left", number, pair.left, pair.left_colours);
    WriteView("right", number, pair.right, pair.right_colours);
    WriteNumbered(path_, "both", number, ".png",
                  [&](OutputFile& file) { WritePng(SideBySide(pair), file); });
  }

 private:
  void WriteView(const char* stem, std::size_t number, const FramePtr& luma,
                 const FramePtr& colours) const {
    WriteNumbered(path_, stem, number, ".png", [&](OutputFile& file) {
      colours ? WritePng(ImageOf<Rgb>(colours), file) : WritePng(ImageOf<std::uint8_t>(luma), file);
    });
  }

  std::string path_;
  OutputDirectory directory_;
};

nlohmann::ordered_json ReportOf(const PairReader& reader,
                                const utils::stereo::StereoRectifier& rectifier) {
  const utils::stereo::StereoGeometry& geometry = rectifier.Geometry();
  return {{"frames", reader.Count()},
          {"focal_length_px", geometry.focal_length},
          {"center_x_px", geometry.center_x},
          {"center_y_px", geometry.center_y},
          {"center_x_right_px", geometry.center_x_right},
          {"baseline", geometry.baseline}};
}

void Rectify(const RectifyArguments& arguments) {
  const StereoInputs& inputs = arguments.inputs;
  CheckStereoInputs(inputs);
  PairRectifier rectifier(inputs.calibration);
  PairReader reader(inputs.left, inputs.right, inputs.frames, Colours::kBoth);
  ViewWriter writer(arguments.directory);
  {
    Progress progress(reader.Expected());
    while (const auto pair = reader.Next()) {
      rectifier.Prepare(*pair);
      writer.Write(rectifier.Rectify(*pair), reader.Count() - 1);
      progress.Update(reader.Count());
    }
  }
  reader.ReportDamage();
  PrintReport(ReportOf(reader, rectifier.Rectifier()), arguments.json);
}

}  // namespace

void AddRectify(CLI::App& app) {
  const auto arguments = std::make_shared<RectifyArguments>();
  CLI::App* rectify =
      app.add_subcommand("rectify", "Rectify the pictures of two calibrated cameras");
  AddStereoInputs(*rectify, arguments->inputs)->required();
  rectify
      ->add_option("-o,--output", arguments->directory,
                   "Directory for the pictures; created if missing")
      ->type_name("DIR")
      ->required();
  rectify->add_flag("--json", arguments->json, "Print a JSON object");
  rectify->footer(
      "For each frame the directory receives left-NNNN.png and right-NNNN.png, in colour where\n"
      "the input has colour, and both-NNNN.png: the two side by side, with a line every 32 rows.\n"
      "With a good calibration a line crosses the same things in both views. What a camera does\n"
      "not see is black.\n"
      "The printed values turn a disparity d of the rectified pictures into depth, in the\n"
      "calibration's unit: focal_length * baseline / (d - (center_x - center_x_right)).\n\n"
      "Examples:\n"
      "  qxtools rectify left.jpg right.jpg --calibration intrinsics.yml extrinsics.yml -o out\n"
      "  qxtools rectify left.mp4 right.mp4 --calibration left.yaml right.yaml -o out --frames 1\n"
      "  qxtools rectify both.mp4 --side-by-side --calibration stereo.yml -o out --json");
  rectify->callback([arguments] { Rectify(*arguments); });
}

}  // namespace qx::tools
