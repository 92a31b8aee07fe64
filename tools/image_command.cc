#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qxtools/ffmpeg_media_proc.h"
#include "qxtools/media_proc.h"
#include "tools/commands.h"
#include "tools/console/library_errors.h"
#include "tools/console/messages.h"
#include "tools/image.h"
#include "tools/media/whole_file.h"
#include "tools/pictures/output_file.h"

namespace qx::tools {
namespace {

using Box = velkar::vision::BBox_<float>;

constexpr int kDevice = 0;
constexpr std::uint64_t kLargestSide = 65535;

struct FileFormat {
  const char* name;  // of --format
  const char* extensions[2];
  utils::image::ImageFileFormat format;
};
constexpr std::array<FileFormat, 3> kFileFormats = {
    {{"jpeg", {".jpg", ".jpeg"}, utils::image::kImageFileFormatJpeg},
     {"png", {".png", ".png"}, utils::image::kImageFileFormatPng},
     {"bmp", {".bmp", ".bmp"}, utils::image::kImageFileFormatBmp}}};

struct ImageOptions {
  std::string input;
  std::string output;
  std::string format;  // empty: by the output's extension
  std::string crop;    // empty: the whole picture
  std::string resize;  // empty: its size
  utils::image::EncodeParams encode;
  bool gray = false;
  bool json = false;
};

template <std::size_t N>
using Numbers = std::optional<std::array<double, N>>;

// Returns: the N numbers between `separators` in `text`, or nothing.
template <std::size_t N>
Numbers<N> Parse(const std::string& text, char separator) {
  const std::vector<std::string> words = CLI::detail::split(text, separator);
  std::array<double, N> numbers = {};
  if (words.size() != N) return {};
  for (std::size_t i = 0; i < N; ++i) {
    if (!CLI::detail::lexical_cast(words[i], numbers[i]) || !std::isfinite(numbers[i])) return {};
  }
  return numbers;
}

std::string CheckBox(const std::string& text) {
  return Parse<4>(text, ',') ? "" : "'" + text + "' is not a box like 10,20,109,69";
}

std::string CheckSize(const std::string& text) {
  const Numbers<2> size = Parse<2>(text, 'x');
  const auto is_side = [](double side) {
    return 1 <= side && side <= kLargestSide && side == std::floor(side);
  };
  return size && is_side((*size)[0]) && is_side((*size)[1])
             ? ""
             : "'" + text + "' is not a size like 640x360";
}

// Returns: the chosen format, or else that of the output's extension in either case.
const FileFormat& FormatOf(const ImageOptions& options) {
  std::string extension = std::filesystem::path(options.output).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const FileFormat& format : kFileFormats) {
    if (options.format.empty()
            ? extension == format.extensions[0] || extension == format.extensions[1]
            : options.format == format.name) {
      return format;
    }
  }
  throw CLI::ValidationError("--output", "'" + options.output +
                                             "' has no known extension (.jpg, .jpeg, .png, .bmp); "
                                             "use --format");
}

// Runs an operation of the engine. An empty result becomes an exception with the engine's reason.
template <typename Operation>
auto Do(const ImageOptions& options, Operation operation) {
  const LibraryErrors errors;
  auto result = operation();
  if (result == decltype(result)()) {
    throw std::runtime_error("'" + options.input + "': " + errors.Text());
  }
  return result;
}

// Returns: the part of the frame in a box; null when there is none.
FramePtr Cut(const FramePtr& frame, const std::array<double, 4>& box) {
  const std::vector<FramePtr> parts =
      utils::image::Crop(frame, {Box(box[0], box[1], box[2], box[3])}, kDevice);
  return parts.empty() ? nullptr : parts.front();
}

FramePtr ReadFrame(const ImageOptions& options) {
  const std::vector<std::uint8_t> bytes = ReadWholeFile(options.input);
  return Do(options, [&] { return utils::image::Decode(bytes.data(), bytes.size(), kDevice); });
}

// Crops, resizes and converts, in this order, as far as the options say.
FramePtr Edit(const ImageOptions& options, FramePtr frame) {
  if (const auto box = Parse<4>(options.crop, ',')) {
    frame = Do(options, [&] { return Cut(frame, *box); });
  }
  if (const auto size = Parse<2>(options.resize, 'x')) {
    frame = Do(options, [&] {
      return utils::image::Resize(frame, static_cast<std::size_t>((*size)[0]),
                                  static_cast<std::size_t>((*size)[1]), kDevice);
    });
  }
  if (options.gray) {
    frame =
        Do(options, [&] { return utils::image::CvtColor(frame, kQXPixelFormatGray8, kDevice); });
  }
  return frame;
}

void Report(const ImageOptions& options, const FileFormat& format, const FramePtr& frame,
            std::size_t bytes) {
  if (options.json) {
    return PrintReport({{"output", options.output},
                        {"format", format.name},
                        {"width", frame->Width()},
                        {"height", frame->Height()},
                        {"bytes", bytes}},
                       true);
  }
  std::printf("'%s': %u x %u, %s, %zu bytes\n", options.output.c_str(), frame->Width(),
              frame->Height(), format.name, bytes);
}

void RunImageCommand(const ImageOptions& options) {
  const FileFormat& format = FormatOf(options);
  if (options.encode.quality != 0 && format.format != utils::image::kImageFileFormatJpeg) {
    throw CLI::ValidationError("--quality", "only for jpeg");
  }
  if (options.json && options.output == "-") {
    throw CLI::ValidationError("--json", "standard output receives the picture");
  }
  utils::image::InstallFfmpegMediaProc();
  const FramePtr frame = Edit(options, ReadFrame(options));
  const auto bytes = Do(
      options, [&] { return utils::image::Encode(frame, format.format, options.encode, kDevice); });
  OutputFile file(options.output);
  file.Write(bytes.data(), bytes.size());
  file.Commit();
  if (options.output != "-") Report(options, format, frame, bytes.size());
}

void AddOptions(CLI::App& image, ImageOptions& options) {
  image.add_option("INPUT", options.input, "Picture (JPEG, PNG, BMP, WebP); - for standard input")
      ->type_name("")
      ->required();
  image.add_option("-o,--output", options.output, "File to write; - for standard output")
      ->type_name("FILE")
      ->required();
  image.add_option("--crop", options.crop, "Cut out this box; its corners belong to it")
      ->type_name("X1,Y1,X2,Y2")
      ->check(CLI::Validator(CheckBox, ""));
  image.add_option("--resize", options.resize, "Scale to this size")
      ->type_name("WxH")
      ->check(CLI::Validator(CheckSize, ""));
  image.add_flag("--gray", options.gray, "Write shades of grey");
  AcceptChoices(image.add_option("--format", options.format,
                                 "Format of the file; default: by the output's extension"),
                {"jpeg", "png", "bmp"});
  AcceptNumbers(image.add_option("--quality", options.encode.quality,
                                 "jpeg: 1 (smallest file) to 100 (best picture)"),
                1, 100);
  image.add_flag("--json", options.json, "Print a JSON object");
}

}  // namespace

void AddImage(CLI::App& app) {
  const auto options = std::make_shared<ImageOptions>();
  CLI::App* image = app.add_subcommand("image", "Crop, scale and convert a picture file");
  AddOptions(*image, *options);
  image->footer(
      "The picture is cropped first, then scaled, then converted, whatever the order of the\n"
      "options. Columns and rows count from 0: 0,0,99,49 is the upper left corner, 100 x 50.\n"
      "What a box has outside of the picture is cut off. An orientation in the file's EXIF data\n"
      "has no effect, and no metadata is copied.\n"
      "The output is written atomically: on failure an existing file is left untouched.\n\n"
      "Examples:\n"
      "  qxtools image photo.jpg -o small.jpg --resize 640x360 --quality 85\n"
      "  qxtools image photo.png -o face.bmp --crop 200,80,327,207 --gray\n"
      "  qxtools image - -o - --format png <photo.jpg >photo.png");
  image->callback([options] { RunImageCommand(*options); });
}

}  // namespace qx::tools
