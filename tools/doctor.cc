#include <omp.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "qxtools/emulated_board.h"
#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/instruction_sets.h"
#include "qxtools/version.h"
#include "tools/commands.h"
#include "tools/console/messages.h"
#include "tools/media/ffmpeg.h"

namespace qx::tools {
namespace {

using nlohmann::ordered_json;

std::string ActiveInstructionSet() {
  for (const utils::InstructionSet& set : utils::InstructionSets()) {
    if (set.active) return set.name;
  }
  return "none";
}

// What is loaded into this process now, not what it was compiled against.
ordered_json Examine() {
  ordered_json report = {{"command", QXTOOLS_VERSION}, {"library", utils::Version()}};
  for (const auto& [name, version] : FfmpegVersions()) report[name] = version;
  const utils::video::RtspTimeLimits limits = utils::video::GetRtspTimeLimits();
  const bool is_emulated = emulated_board::IsEmulated();
  report["instruction_set"] = ActiveInstructionSet();
  report["openmp_threads"] = omp_get_max_threads();
  report["device_runtime"] = is_emulated ? "emulated" : "system";
  report["board"] = is_emulated ? "emulated on this processor" : "real";
  report["rtsp_wait_limit_s"] = limits.wait.count();
  report["rtsp_open_limit_s"] = limits.open.count();
  return report;
}

}  // namespace

void AddDoctor(CLI::App& app) {
  const auto json = std::make_shared<bool>(false);
  CLI::App* doctor = app.add_subcommand("doctor", "Show what the library runs on and with");
  doctor->add_flag("--json", *json, "Print a JSON object");
  doctor->footer(
      "Versions in use, instruction set, OpenMP threads, device runtime (emulated: correlation\n"
      "runs are computed on this processor even if there is a board), and the limits in seconds\n"
      "of one wait for an RTSP camera and of opening it. Include this in every bug report.\n\n"
      "Examples:\n"
      "  qxtools doctor\n"
      "  QXTOOLS_FORCE_ISA=scalar OMP_NUM_THREADS=1 qxtools doctor --json | jq .instruction_set");
  doctor->callback([json] { PrintReport(Examine(), *json); });
}

}  // namespace qx::tools
