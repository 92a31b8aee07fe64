#include "tools/depth_arguments.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "tools/commands.h"

namespace qx::tools {
namespace {

struct Unit {
  const char* name;
  double millimetres;
};
constexpr Unit kUnits[] = {{"m", 1000}, {"cm", 10}, {"mm", 1}, {"in", 25.4}, {"ft", 304.8}};
constexpr double kMostMillimetres = 1e9;

// Returns: the millimetres of "mm", "in", "25mm", "0.5 in" and so on; 0 when it is not a length.
double MillimetresOf(const std::string& text) {
  const std::size_t name = text.find_last_of("0123456789. ") + 1;  // 0: there is no number
  const auto* const unit = std::find_if(std::begin(kUnits), std::end(kUnits), [&](const Unit& u) {
    return text.compare(name, std::string::npos, u.name) == 0;
  });
  double factor = 1;
  if (unit == std::end(kUnits)) return 0;
  if (name > 0 && !CLI::detail::lexical_cast(text.substr(0, name), factor)) return 0;
  const double millimetres = factor * unit->millimetres;
  return millimetres > 0 && millimetres <= kMostMillimetres ? millimetres : 0;
}

std::string CheckUnit(const std::string& text) {
  return MillimetresOf(text) > 0 ? "" : "'" + text + "' is not a length like m, mm, in or 25mm";
}

}  // namespace

void AddDepth(CLI::App& command, CLI::Option* calibration, DepthArguments& arguments) {
  DepthJob& job = arguments.job;
  command
      .add_flag("--depth", job.maps,
                "Write depth-NNNN.pfm, in the calibration's unit, and depth-NNNN.png, in "
                "millimetres")
      ->needs(calibration);
  command.add_flag("--points", job.points, "Write points-NNNN.ply: points with their colours")
      ->needs(calibration);
  auto* unit = command.add_option("--unit", arguments.unit,
                                  "The calibration's unit: m, cm, mm, in, ft, or a length like "
                                  "25mm for chessboard squares of that size");
  unit->type_name("UNIT")->check(CLI::Validator(CheckUnit, ""))->capture_default_str();
  auto* nearest =
      command.add_option("--nearest", job.limits.nearest, "Leave out what is nearer, in that unit");
  auto* farthest =
      command.add_option("--farthest", job.limits.farthest, "Leave out what is farther away");
  auto* least = command.add_option("--least-confidence", job.limits.least_confidence,
                                   "Leave out the depth of less reliable matches");
  AcceptPositive(nearest->type_name("X"));
  AcceptPositive(farthest->type_name("X"));
  AcceptNumbers(least, 1, 255);
  arguments.details = {unit, nearest, farthest, least};
}

DepthJob CheckDepth(const DepthArguments& arguments) {
  DepthJob job = arguments.job;
  for (const CLI::Option* option : arguments.details) {
    if (option->count() == 0 || job.IsWanted()) continue;
    throw CLI::ValidationError(option->get_name(), "needs --depth or --points");
  }
  if (job.limits.farthest < job.limits.nearest) {
    throw CLI::ValidationError("--farthest", "is below --nearest");
  }
  job.millimetres = MillimetresOf(arguments.unit);
  return job;
}

}  // namespace qx::tools
