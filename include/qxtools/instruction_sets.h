// The instruction sets that the library has code for, and the one it uses.
#pragma once

#include <vector>

#include "qxtools/export.h"

namespace qx::utils {

struct InstructionSet {
  const char* name;  // as QXTOOLS_FORCE_ISA takes it; valid for the life of the process
  bool supported;    // by this processor and its operating system
  bool active;       // the set in use; true for one entry
};

// Returns: the instruction sets of this build, best first, "scalar" last. An operation that has no
//          code for the active set uses its next best one.
// Threads: safe from any thread. The choice is made when the first operation needs it and is then
//          kept; until then the environment variable QXTOOLS_FORCE_ISA can set it.
QXTOOLS_EXPORT std::vector<InstructionSet> InstructionSets();

}  // namespace qx::utils
