#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qxtools/ffmpeg_video_decoder.h"
#include "tools/commands.h"
#include "tools/console/messages.h"
#include "tools/console/stop_request.h"
#include "tools/media/video_input.h"
#include "tools/pictures/output_file.h"
#include "tools/pictures/picture_writer.h"

namespace qx::tools {
namespace {

constexpr double kMostSeconds = 1e9;

struct DecodeOptions {
  std::string input;
  std::string output;
  std::string format;
  std::string frame_rate;  // empty: the container's
  std::size_t frames = 0;  // 0: all
  double duration = 0;     // seconds; 0: no limit
  bool reconnect = false;
};

struct DecodeSummary {
  std::size_t pictures = 0;
  std::size_t size_changes = 0;
};

std::string FormatNames(const char* before, const char* between) {
  std::string names;
  for (const PictureFormat& format : kPictureFormats) {
    names += (names.empty() ? "" : between) + (before + std::string(format.name));
  }
  return names;
}

const PictureFormat* FindFormat(const std::string& name) {
  const auto found =
      std::find_if(kPictureFormats.begin(), kPictureFormats.end(),
                   [&name](const PictureFormat& format) { return format.name == name; });
  return found == kPictureFormats.end() ? nullptr : &*found;
}

// Returns: the chosen format, or else that of the output's extension; yuv where names have none.
const PictureFormat& FormatOf(const DecodeOptions& options) {
  if (!options.format.empty()) return *FindFormat(options.format);
  const std::string& output = options.output;
  const std::string extension = std::filesystem::path(output).extension().string();
  const PictureFormat* found = extension.empty() ? nullptr : FindFormat(extension.substr(1));
  if (found == nullptr && (output == "-" || output.rfind("/dev/", 0) == 0))
    found = FindFormat("yuv");
  if (found != nullptr) return *found;
  throw CLI::ValidationError("--output", "'" + output + "' has no known extension (" +
                                             FormatNames(".", ", ") + "); use --format");
}

std::string CheckSeconds(const std::string& text) {
  double seconds = 0;
  const bool is_number = CLI::detail::lexical_cast(text, seconds);
  return is_number && seconds > 0 && seconds <= kMostSeconds ? "" : "'" + text + "' is not a time";
}

std::string CheckFrameRate(const std::string& text) {
  static const std::regex kRate("[1-9][0-9]{0,8}(/[1-9][0-9]{0,8})?");
  return std::regex_match(text, kRate) ? "" : "'" + text + "' is not a rate like 25 or 30000/1001";
}

// Returns: the rate for a header, "N:D": the user's, else the container's, else that of most
// cameras.
std::string HeaderRate(std::string rate, const utils::video::StreamTimes& times) {
  if (rate.empty() && times.rate_num == 0) return "25:1";
  if (rate.empty()) return std::to_string(times.rate_num) + ':' + std::to_string(times.rate_den);
  const std::size_t slash = rate.find('/');
  return slash == std::string::npos ? rate + ":1" : rate.replace(slash, 1, ":");
}

// Writes pictures, beginning with `frame`, up to `limit`; 0: all.
DecodeSummary Copy(VideoReader& reader, FramePtr frame, PictureWriter& writer, std::size_t limit) {
  Progress progress(limit != 0 ? limit : reader.ExpectedPictures());
  DecodeSummary summary;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  while (frame) {
    writer.Write(frame);
    const utils::ffmpeg::FrameLayout& layout = *utils::ffmpeg::LayoutOf(frame);
    if (summary.pictures > 0 && (layout.width != width || layout.height != height)) {
      ++summary.size_changes;
    }
    width = layout.width;
    height = layout.height;
    progress.Update(++summary.pictures);
    if (summary.pictures == limit) break;
    frame = reader.Next();
  }
  return summary;
}

// A file that is cut off gets a warning. A stream that breaks off is a failure: it would have
// continued.
void Report(const DecodeOptions& options, const VideoReader& reader, const DecodeSummary& summary) {
  const std::string name = "'" + options.input + "': ";
  if (reader.DamagedPackets() > 0) {
    PrintWarning(name + Count(reader.DamagedPackets(), "damaged packet"));
  }
  if (reader.DamagedPictures() > 0) {
    PrintDamage(options.input, reader.DamagedPictures(), summary.pictures);
  }
  if (options.reconnect && reader.Gaps() > 0) {
    PrintWarning(name + Count(reader.Gaps(), "gap") + " in the stream");
  }
  if (summary.size_changes > 0) {
    PrintWarning(name + "the picture size changes " + Count(summary.size_changes, "time"));
  }
  if (reader.Fault().empty()) return;
  const std::string after = " after " + Count(summary.pictures, "picture");
  if (!IsUrl(options.input)) return PrintWarning(name + "unreadable" + after);
  throw std::runtime_error(name + reader.Fault() + after + "; '" + options.output +
                           "' contains them");
}

// Inputs: stop  for streams; null for files.
void Write(const DecodeOptions& options, const PictureFormat& format, StopRequest* stop) {
  VideoReader reader(options.input, {options.reconnect, stop});
  OutputFile file(options.output);
  auto first = reader.Next();
  if (!first) {
    const bool stopped = stop != nullptr && stop->IsMade();
    throw std::runtime_error("'" + options.input + "': " +
                             (stopped                   ? "stopped before the first picture"
                              : !reader.Fault().empty() ? reader.Fault()
                                                        : "no picture in it could be decoded"));
  }
  if (stop != nullptr) stop->StartClock();
  const auto writer = format.make_writer(HeaderRate(options.frame_rate, reader.Times()), file);
  const std::size_t most = format.most_pictures;
  const DecodeSummary summary =
      Copy(reader, std::move(first), *writer, most != 0 ? most : options.frames);
  file.Commit();
  Report(options, reader, summary);
}

void Decode(const DecodeOptions& options) {
  const PictureFormat& format = FormatOf(options);
  if (format.most_pictures != 0 && options.frames > format.most_pictures) {
    PrintWarning("--frames has no effect: a ." + std::string(format.name) + " file holds " +
                 Count(format.most_pictures, "picture"));
  }
  if (IsUrl(options.input)) {
    StopRequest stop{std::chrono::duration<double>(options.duration)};
    return Write(options, format, &stop);
  }
  if (options.duration > 0) throw CLI::ValidationError("--duration", "only for streams");
  if (options.reconnect) throw CLI::ValidationError("--reconnect", "only for streams");
  Write(options, format, nullptr);
}

void AddOptions(CLI::App& decode, DecodeOptions& options) {
  decode.add_option("INPUT", options.input, "H.264 file (raw, MP4, MKV, TS, ...) or RTSP URL")
      ->type_name("")
      ->required();
  decode.add_option("-o,--output", options.output, "File to write; - for standard output")
      ->type_name("FILE")
      ->required();
  AcceptNumbers(
      decode.add_option("--frames", options.frames, "Stop after N pictures; default: after all"),
      1);
  std::vector<std::string> names(kPictureFormats.size());
  std::transform(kPictureFormats.begin(), kPictureFormats.end(), names.begin(),
                 [](const PictureFormat& format) { return format.name; });
  AcceptChoices(decode.add_option("--format", options.format,
                                  "What to write; default: by the output's extension"),
                names);
  decode
      .add_option("--fps", options.frame_rate,
                  "Frame rate in the header of y4m; default: the input's, or 25")
      ->type_name("N[/D]")
      ->check(CLI::Validator(CheckFrameRate, ""));
  decode.add_option("--duration", options.duration, "URLs: stop this long after the first picture")
      ->type_name("SECONDS")
      ->check(CLI::Validator(CheckSeconds, ""));
  decode.add_flag("--reconnect", options.reconnect,
                  "URLs: open the stream again whenever it is lost");
}

}  // namespace

void AddDecode(CLI::App& app) {
  const auto options = std::make_shared<DecodeOptions>();
  CLI::App* decode = app.add_subcommand("decode", "Write the pictures of an H.264 video to a file");
  AddOptions(*decode, *options);
  decode->footer(
      "Formats: yuv  all pictures in output order as planar I420 without padding; if the stream\n"
      "              changes the picture size, so does the file\n"
      "         y4m  the same with headers; a size change is an error\n"
      "         png  the first picture as RGB, converted by the stream's range and matrix (BT.601\n"
      "              if it names none)\n"
      "Odd sizes: chroma planes have (width + 1) / 2 x (height + 1) / 2 samples.\n"
      "The output is written atomically: on failure an existing file is left untouched. Damaged\n"
      "packets are skipped; they and pictures with concealed errors are counted on standard "
      "error.\n"
      "A stream is recorded until --frames or --duration, SIGINT (Ctrl-C), SIGTERM or SIGHUP ends\n"
      "it, or until it is lost: the file then holds all complete pictures. A second signal\n"
      "discards them.\n\n"
      "Examples:\n"
      "  qxtools decode clip.mp4 -o clip.y4m\n"
      "  qxtools decode rtsp://camera.local/stream -o look.png\n"
      "  qxtools decode rtsp://camera.local/stream -o hour.y4m --duration 3600 --reconnect\n"
      "  qxtools decode clip.h264 --frames 100 -o - | sha256sum");
  decode->callback([options] { Decode(*options); });
}

}  // namespace qx::tools
