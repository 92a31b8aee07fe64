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
#include "tools/video_reader.h"

namespace qx {
namespace tools {
namespace {

struct DecodeOptions {
  std::string input;
  std::string output;
  std::string format;
  std::string frame_rate;  // empty: the container's
  std::size_t frames = 0;  // 0: all
};

struct DecodeSummary {
  std::size_t pictures = 0;
  std::size_t size_changes = 0;
};

// Returns: the output format by the name's ending; yuv where names have none.
std::string FormatOf(const std::string& output) {
  const std::string ending = std::filesystem::path(output).extension().string();
  if (ending == ".yuv" || ending == ".y4m" || ending == ".png") return ending.substr(1);
  if (output == "-" || output.rfind("/dev/", 0) == 0) return "yuv";
  throw CLI::ValidationError("--output",
                             "'" + output + "' ends in none of .yuv, .y4m, .png; give --format");
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

DecodeSummary Copy(VideoReader& reader, PictureWriter& writer, std::size_t limit) {
  Progress progress(limit);
  DecodeSummary summary;
  std::size_t width = 0;
  std::size_t height = 0;
  while (limit == 0 || summary.pictures < limit) {
    auto frame = reader.Next();
    if (!frame) break;
    const PlanarPicture picture(std::move(frame));
    writer.Write(picture);
    if (summary.pictures > 0 && (picture.Width() != width || picture.Height() != height)) {
      ++summary.size_changes;
    }
    width = picture.Width();
    height = picture.Height();
    progress.Update(++summary.pictures);
  }
  return summary;
}

void Report(const DecodeOptions& options, const VideoReader& reader, const DecodeSummary& summary) {
  const std::string name = "'" + options.input + "': ";
  if (reader.DamagedPackets() > 0) {
    PrintWarning(name + Count(reader.DamagedPackets(), "damaged packet"));
  }
  if (reader.Truncated()) {
    PrintWarning(name + "unreadable after " + Count(summary.pictures, "picture"));
  }
  if (summary.size_changes > 0) {
    PrintWarning(name + "the picture size changes " + Count(summary.size_changes, "time"));
  }
}

void Decode(const DecodeOptions& options) {
  const std::string format = options.format.empty() ? FormatOf(options.output) : options.format;
  VideoReader reader(options.input);
  OutputFile file(options.output);
  const auto writer =
      MakePictureWriter(format, HeaderRate(options.frame_rate, reader.Times()), file);
  const std::size_t limit = writer->Limit() != 0 ? writer->Limit() : options.frames;
  if (limit < options.frames) {
    PrintWarning("--frames has no effect: a ." + format + " file holds " + Count(limit, "picture"));
  }
  const DecodeSummary summary = Copy(reader, *writer, limit);
  if (summary.pictures == 0) {
    throw std::runtime_error("'" + options.input + "': no picture in it could be decoded");
  }
  file.Commit();
  Report(options, reader, summary);
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
      "packets are skipped and counted on standard error.\n\n"
      "Examples:\n"
      "  qxtools decode clip.mp4 -o clip.y4m\n"
      "  qxtools decode rtsp://camera.local/stream -o look.png\n"
      "  qxtools decode clip.h264 --frames 100 -o - | sha256sum");
  decode->callback([options] { Decode(*options); });
}

}  // namespace tools
}  // namespace qx
