// What the environment sets of the emulated board, so that any application can be tried without
// being changed. A value that cannot be used is logged at ERROR and ignored.
#pragma once

#include "board/emulated/call_log.h"
#include "qxtools/emulated_board.h"

namespace qx::board {

// QXTOOLS_BOARD_GEOMETRY and QXTOOLS_BOARD_RUN_TIME_US.
emulated_board::Settings SettingsFromEnvironment();

// QXTOOLS_BOARD_FAULTS: names, separated by commas, each with an optional "@" and use number.
void InjectFaultsFromEnvironment(CallLog& log);

// Returns: whether any of these variables is set.
bool IsSetInEnvironment();

}  // namespace qx::board
