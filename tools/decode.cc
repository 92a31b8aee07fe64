#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>

#include "tools/commands.h"
#include "tools/messages.h"
#include "tools/output_file.h"
#include "tools/picture_writer.h"
#include "tools/progress.h"
#include "tools/stop_request.h"
#include "tools/video_reader.h"

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

// Pictures that a file of this format holds; 0 for any number.
std::size_t PicturesOf(const std::string& format) { return format == "png" ? 1 : 0; }

// Returns: the output format by the name's ending; yuv where names have none.
std::string FormatOf(const std::string& output) {
  const std::string ending = std::filesystem::path(output).extension().string();
  if (ending == ".yuv" || ending == ".y4m" || ending == ".png") return ending.substr(1);
  if (output == "-" || output.rfind("/dev/", 0) == 0) return "yuv";
  throw CLI::ValidationError("--output",
                             "'" + output + "' ends in none of .yuv, .y4m, .png; give --format");
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

// Returns: the rate for a header, "N:D": what the user says, or else what the container says, or
//          else that of most cameras.
std::string HeaderRate(std::string rate, const utils::video::StreamTimes& times) {
  if (rate.empty() && times.rate_num == 0) return "25:1";
  if (rate.empty()) return std::to_string(times.rate_num) + ':' + std::to_string(times.rate_den);
  const std::size_t slash = rate.find('/');
  return slash == std::string::npos ? rate + ":1" : rate.replace(slash, 1, ":");
}

// Writes pictures beginning with `frame`.
DecodeSummary Copy(VideoReader& reader, std::shared_ptr<velkar::vision::ImageFrame> frame,
                   PictureWriter& writer, std::size_t limit) {
  Progress progress(limit);
  DecodeSummary summary;
  std::size_t width = 0;
  std::size_t height = 0;
  while (frame) {
    const PlanarPicture picture(std::move(frame));
    writer.Write(picture);
    if (summary.pictures > 0 && (picture.Width() != width || picture.Height() != height)) {
      ++summary.size_changes;
    }
    width = picture.Width();
    height = picture.Height();
    progress.Update(++summary.pictures);
    if (summary.pictures == limit) break;
    frame = reader.Next();
  }
  return summary;
}

// A file that was cut off is worth a warning. A stream that broke off is a failure: there was more
// to come.
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
  throw std::runtime_error(name + reader.Fault() + after + "; '" + options.output + "' has them");
}

// Inputs: stop  for streams; null for files.
void Write(const DecodeOptions& options, const std::string& format, StopRequest* stop) {
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
  const auto writer =
      MakePictureWriter(format, HeaderRate(options.frame_rate, reader.Times()), file);
  const std::size_t most = PicturesOf(format);
  const DecodeSummary summary =
      Copy(reader, std::move(first), *writer, most != 0 ? most : options.frames);
  file.Commit();
  Report(options, reader, summary);
}

void Decode(const DecodeOptions& options) {
  const std::string format = options.format.empty() ? FormatOf(options.output) : options.format;
  const std::size_t most = PicturesOf(format);
  if (most != 0 && options.frames > most) {
    PrintWarning("--frames has no effect: a ." + format + " file holds " + Count(most, "picture"));
  }
  if (IsUrl(options.input)) {
    StopRequest stop{std::chrono::duration<double>(options.duration)};
    return Write(options, format, &stop);
  }
  if (options.duration > 0) throw CLI::ValidationError("--duration", "only a stream has one");
  if (options.reconnect) throw CLI::ValidationError("--reconnect", "only a stream can be lost");
  Write(options, format, nullptr);
}

void AddOptions(CLI::App& decode, DecodeOptions& options) {
  decode.add_option("INPUT", options.input, "H.264 file (raw, MP4, MKV, TS, ...) or RTSP URL")
      ->type_name("")
      ->required();
  decode.add_option("-o,--output", options.output, "File to write; - for standard output")
      ->type_name("FILE")
      ->required();
  AcceptNumbers(decode.add_option("--frames", options.frames,
                                  "Stop after so many pictures; default: after all"),
                1);
  AcceptChoices(decode.add_option("--format", options.format,
                                  "What to write; default: by the ending of the output's name"),
                {"yuv", "y4m", "png"});
  decode
      .add_option("--fps", options.frame_rate,
                  "Pictures a second in the header of y4m; default: what the input says, or 25")
      ->type_name("N[/D]")
      ->check(CLI::Validator(CheckFrameRate, ""));
  decode
      .add_option("--duration", options.duration,
                  "URLs: stop so many seconds after the first picture")
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
      "Formats: yuv  all pictures in output order as planar I420, rows tightly packed; each keeps\n"
      "              its size where the stream changes it\n"
      "         y4m  the same with headers; a size change is an error\n"
      "         png  the first picture as RGB, by the stream's matrix (BT.601 if it names none)\n"
      "              and range\n"
      "Odd sizes: chroma planes have (width + 1) / 2 x (height + 1) / 2 samples.\n"
      "The file appears when it is complete: a failure leaves an older one as it was. Damaged\n"
      "packets are skipped; they and pictures with concealed errors are counted on standard "
      "error.\n"
      "A stream is recorded until --frames or --duration, SIGINT (Ctrl-C), SIGTERM or SIGHUP ends\n"
      "it, or until it is lost: the file then holds all whole pictures. A second signal discards\n"
      "them.\n\n"
      "Examples:\n"
      "  qxtools decode clip.mp4 -o clip.y4m\n"
      "  qxtools decode rtsp://camera.local/stream -o look.png\n"
      "  qxtools decode rtsp://camera.local/stream -o hour.y4m --duration 3600 --reconnect\n"
      "  qxtools decode clip.h264 --frames 100 -o - | sha256sum");
  decode->callback([options] { Decode(*options); });
}

}  // namespace qx::tools
