#include <climits>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "qxtools/emulated_board.h"
#include "qxtools/fpga_correlation.h"
#include "tools/commands.h"
#include "tools/console/messages.h"

namespace qx::tools {
namespace {

using nlohmann::ordered_json;

std::string Hex(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

// What only the emulated board knows about its container.
void AddEmulated(ordered_json& result) {
  const emulated_board::Status status = emulated_board::GetStatus();
  result["built_in_container"] = status.built_in;
  const auto& g = status.geometry;
  result["geometry"] = {{"height", g.height},
                        {"width", g.width},
                        {"channels", g.channels},
                        {"disparities", g.disparities}};
  for (const auto& memory : status.memory) {
    result["memory"].push_back(
        {{"group", memory.group}, {"base", Hex(memory.base)}, {"bytes", memory.size}});
  }
}

void ShowBoard(int device, bool json) {
  const utils::image::CorrelationUnit unit = utils::image::DescribeCorrelationUnit(device);
  ordered_json result = {{"runtime", emulated_board::IsEmulated() ? "emulated" : "system"},
                         {"device", device},
                         {"container", unit.xclbin_path},
                         {"compute_unit", unit.cu_name},
                         {"base_address", Hex(unit.base_address)}};
  for (const std::uint32_t offset : unit.offsets) result["argument_offsets"].push_back(Hex(offset));
  result["memory_groups"] = unit.memory_groups;
  if (emulated_board::IsEmulated()) AddEmulated(result);
  PrintReport(result, json);
}

}  // namespace

void AddBoard(CLI::App& app) {
  struct Options {
    int device = 0;
    bool json = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* board = app.add_subcommand("board", "Show the correlation kernel of the board");
  auto* device = board->add_option("--device", options->device, "Index of the device");
  AcceptNumbers(device->capture_default_str(), 0, INT_MAX);
  board->add_flag("--json", options->json, "Print a JSON object");
  board->footer(
      "Loads the container and binds the compute unit as an application would. The environment\n"
      "variables xclbin_path and cu_name override the built-in names.\n\n"
      "Examples:\n"
      "  qxtools board\n"
      "  xclbin_path=my.container qxtools board --json | jq .geometry");
  board->callback([options] { ShowBoard(options->device, options->json); });
}

}  // namespace qx::tools
