#include <iostream>

#include "qxtools/instruction_sets.h"
#include "tools/commands.h"

namespace qx::tools {
namespace {

void Print() {
  for (const utils::InstructionSet& set : utils::InstructionSets()) {
    std::cout << set.name << ": compiled" << (set.supported ? ", supported" : "")
              << (set.active ? ", active" : "") << "\n";
  }
}

}  // namespace

void AddIsa(CLI::App& app) {
  app.add_subcommand("isa", "List the instruction sets compiled in, supported here and in use")
      ->footer("QXTOOLS_FORCE_ISA=NAME in the environment selects one of the supported sets.")
      ->callback(Print);
}

}  // namespace qx::tools
