#include <omp.h>

#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libswscale/swscale.h>
}

#include "qxtools/emulated_board.h"
#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/instruction_sets.h"
#include "qxtools/version.h"
#include "tools/commands.h"
#include "tools/report.h"

namespace qx::tools {
namespace {

using nlohmann::ordered_json;

// Returns: an FFmpeg library's version number as text.
std::string VersionText(unsigned version) {
  return std::to_string(AV_VERSION_MAJOR(version)) + '.' +
         std::to_string(AV_VERSION_MINOR(version)) + '.' +
         std::to_string(AV_VERSION_MICRO(version));
}

std::string ActiveInstructionSet() {
  for (const utils::InstructionSet& set : utils::InstructionSets()) {
    if (set.active) return set.name;
  }
  return "none";
}

// What is loaded into this process now, not what it was compiled against.
ordered_json Examine() {
  const utils::video::RtspTimeLimits limits = utils::video::GetRtspTimeLimits();
  return {{"command", QXTOOLS_VERSION},
          {"library", utils::Version()},
          {"ffmpeg", av_version_info()},
          {"libavformat", VersionText(avformat_version())},
          {"libavcodec", VersionText(avcodec_version())},
          {"libavutil", VersionText(avutil_version())},
          {"libswscale", VersionText(swscale_version())},
          {"instruction_set", ActiveInstructionSet()},
          {"openmp_threads", omp_get_max_threads()},
          {"device_runtime", emulated_board::IsEmulated() ? "emulated" : "system"},
          {"board", emulated_board::IsEmulated() ? "emulated on this processor" : "real"},
          {"rtsp_wait_limit_s", limits.wait.count()},
          {"rtsp_open_limit_s", limits.open.count()}};
}

}  // namespace

void AddDoctor(CLI::App& app) {
  const auto json = std::make_shared<bool>(false);
  CLI::App* doctor = app.add_subcommand("doctor", "Show what the library runs on and with");
  doctor->add_flag("--json", *json, "Print a JSON object");
  doctor->footer(
      "Versions in use, instruction set, OpenMP threads, device runtime (emulated: correlation\n"
      "runs are computed on this processor, whatever board there is), and the limits in seconds\n"
      "of one wait for an RTSP camera and of opening it. Belongs into every bug report.\n\n"
      "Examples:\n"
      "  qxtools doctor\n"
      "  QXTOOLS_FORCE_ISA=scalar OMP_NUM_THREADS=1 qxtools doctor --json | jq .instruction_set");
  doctor->callback([json] { PrintReport(Examine(), *json); });
}

}  // namespace qx::tools
