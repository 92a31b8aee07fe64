#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>

#include "tools/commands.h"
#include "tools/output_file.h"
#include "tools/passwords.h"
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
  std::string frame_rate = "25";
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

// Returns: "N/D" or "N" as "N:D".
std::string HeaderRate(std::string rate) {
  const std::size_t slash = rate.find('/');
  if (slash == std::string::npos) return rate + ":1";
  return rate.replace(slash, 1, ":");
}

DecodeSummary Copy(VideoReader& reader, PictureWriter& writer, std::size_t limit) {
  Progress progress(limit);
  DecodeSummary summary;
  std::size_t width = 0;
  std::size_t height = 0;
  while (limit == 0 || summary.pictures < limit) {
    const auto frame = reader.Next();
    if (!frame) break;
    const PlanarPicture picture = ToPlanar(frame);
    writer.Write(picture);
    if (summary.pictures > 0 && (picture.width != width || picture.height != height)) {
      ++summary.size_changes;
    }
    width = picture.width;
    height = picture.height;
    progress.Update(++summary.pictures);
  }
  return summary;
}

void Report(const DecodeOptions& options, const VideoReader& reader, const DecodeSummary& summary) {
  const std::string shown = WithoutPasswords(options.input);
  const char* name = shown.c_str();
  if (reader.DamagedPackets() > 0) {
    std::fprintf(stderr, "qxtools: warning: '%s': %zu damaged packet%s\n", name,
                 reader.DamagedPackets(), reader.DamagedPackets() == 1 ? "" : "s");
  }
  if (reader.Truncated()) {
    std::fprintf(stderr, "qxtools: warning: '%s': unreadable behind picture %zu\n", name,
                 summary.pictures);
  }
  if (summary.size_changes > 0) {
    std::fprintf(stderr, "qxtools: warning: '%s': the picture size changes %zu time%s\n", name,
                 summary.size_changes, summary.size_changes == 1 ? "" : "s");
  }
}

void Decode(const DecodeOptions& options) {
  const std::string format = options.format.empty() ? FormatOf(options.output) : options.format;
  VideoReader reader(options.input);
  OutputFile file(options.output);
  const auto writer = MakePictureWriter(format, HeaderRate(options.frame_rate), file);
  const DecodeSummary summary =
      Copy(reader, *writer, writer->Limit() != 0 ? writer->Limit() : options.frames);
  if (summary.pictures == 0) {
    throw std::runtime_error("'" + options.input + "': no picture in it could be decoded");
  }
  file.Commit();
  Report(options, reader, summary);
}

}  // namespace

void AddDecode(CLI::App& app) {
  const auto options = std::make_shared<DecodeOptions>();
  CLI::App* decode = app.add_subcommand("decode", "Write the pictures of an H.264 video to a file");
  decode->add_option("INPUT", options->input, "H.264 file (raw, MP4, MKV, TS, ...) or RTSP URL")
      ->required();
  decode->add_option("-o,--output", options->output, "File to write; - for standard output")
      ->required();
  decode->add_option("--frames", options->frames, "Stop after so many pictures; default: all")
      ->check(CLI::PositiveNumber);
  decode->add_option("--format", options->format, "Default: by the ending of the output's name")
      ->check(CLI::IsMember({"yuv", "y4m", "png"}));
  decode->add_option("--fps", options->frame_rate, "Pictures per second in the header of y4m")
      ->check(CLI::Validator(CheckFrameRate, "N[/D]"))
      ->capture_default_str();
  decode->footer(
      "Formats: yuv  all pictures in output order as planar I420, rows tightly packed; pictures\n"
      "              keep their sizes where the stream changes it\n"
      "         y4m  the same with headers; a size change is an error\n"
      "         png  the first picture as RGB, by BT.601 and the stream's colour range\n"
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
