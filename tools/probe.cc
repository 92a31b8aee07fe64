#include <cmath>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>

#include "qxtools/ffmpeg_video_decoder.h"
#include "qxtools/h264_h265_info_parse.h"
#include "tools/commands.h"
#include "tools/console/messages.h"
#include "tools/media/video_input.h"

namespace qx::tools {
namespace {

using utils::VideoParams;
using utils::video::StreamPacket;

// Cameras repeat their parameter sets with every key frame; these are ten seconds or more.
constexpr int kMaxPackets = 1000;

// Returns: the packet's bytes with 4-byte start codes, the only ones that the parsers accept; a
//          byte stream may have 3-byte ones.
std::string WithLongStartCodes(const StreamPacket& packet) {
  std::string out;
  out.reserve(packet.size + 16);
  int zeros = 0;
  for (std::size_t i = 0; i < packet.size; ++i) {
    const std::uint8_t byte = packet.data[i];
    if (byte == 1 && zeros == 2) out.push_back('\0');
    zeros = byte == 0 ? zeros + 1 : 0;
    out.push_back(static_cast<char>(byte));
  }
  return out;
}

VideoParams Parse(const StreamPacket& packet) {
  const std::string bytes = WithLongStartCodes(packet);
  return packet.codec == utils::video::kVideoCodecH265
             ? utils::ParseH265Params(bytes.data(), bytes.size())
             : utils::ParseH264Params(bytes.data(), bytes.size());
}

struct Findings {
  VideoParams params = {};
  bool decodable = false;  // a picture came out of the decoder
};

// Reads until the picture size is known and it is clear whether the video can be decoded.
Findings Examine(VideoInput& input) {
  const auto decoder = utils::ffmpeg::CreateFfmpegDecoder();
  bool is_open = decoder->Init() == 0;
  Findings found;
  for (int read = 0; read < kMaxPackets; ++read) {
    auto packet = input.Next();
    const bool is_end = packet == nullptr;
    if (is_end)
      packet = std::make_shared<StreamPacket>();  // asks for the pictures that are held back
    if (!is_end && found.params.width * found.params.height == 0) found.params = Parse(*packet);
    if (packet->codec != utils::video::kVideoCodecH264) is_open = false;
    if (is_open && !found.decodable) {
      const int status = decoder->SendFrame(std::move(packet), nullptr);
      found.decodable = status == utils::ffmpeg::kDecodeOk;
      is_open = status != utils::ffmpeg::kDecodeUnsupportedFormat;
    }
    const bool is_known = found.params.width * found.params.height != 0;
    if (is_end || (is_known && (found.decodable || !is_open))) break;
  }
  return found;
}

nlohmann::ordered_json NumberOrNull(bool is_known, double value) {
  if (!is_known) return nullptr;
  return std::round(1000 * value) / 1000;
}

void Probe(const std::string& name, bool json) {
  VideoInput input(name);
  const auto [params, decodable] = Examine(input);
  if (params.width * params.height == 0) {
    throw std::runtime_error(
        "'" + name +
        "': " + (input.Fault().empty() ? "no usable parameter set in its video" : input.Fault()));
  }
  const utils::video::StreamTimes times = input.Times();
  const nlohmann::ordered_json result = {
      {"input", WithoutPasswords(name)},
      {"codec", params.is_h265 != 0 ? "h265" : "h264"},
      {"stream_index", input.StreamIndex()},
      {"width", params.width},
      {"height", params.height},
      {"profile_idc", params.profile_idc},
      {"level_idc", params.level_idc},
      {"chroma_format_idc", params.chroma_format_idc},
      {"frame_rate",
       NumberOrNull(times.rate_num != 0, static_cast<double>(times.rate_num) / times.rate_den)},
      {"duration_s", NumberOrNull(times.duration_us != utils::video::kNoTime,
                                  static_cast<double>(times.duration_us) / 1e6)},
      {"decodable", decodable},
  };
  PrintReport(result, json);
}

}  // namespace

void AddProbe(CLI::App& app) {
  struct Options {
    std::string input;
    bool json = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* probe =
      app.add_subcommand("probe", "Show codec, picture size, rate and length of a video");
  probe
      ->add_option("INPUT", options->input, "H.264/H.265 file (raw, MP4, MKV, TS, ...) or RTSP URL")
      ->type_name("")
      ->required();
  probe->add_flag("--json", options->json, "Print a JSON object");
  probe->footer(
      "Reads the first parameter set of the first H.264 or H.265 stream. The size is that of the\n"
      "displayed picture in H.264 and of the coded picture in H.265. The average frame rate and\n"
      "the duration are the container's, null if unknown. decodable: whether `qxtools decode` can\n"
      "decode the first picture.\n\n"
      "Examples:\n"
      "  qxtools probe clip.mp4\n"
      "  qxtools probe --json rtsp://camera.local/stream | jq .width");
  probe->callback([options] { Probe(options->input, options->json); });
}

}  // namespace qx::tools
