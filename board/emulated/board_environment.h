// The emulated board's environment variables, which allow to try an unmodified application. An
// invalid value is logged at ERROR and ignored.
#pragma once

#include "board/emulated/call_log.h"
#include "qxtools/emulated_board.h"

namespace qx::board {

// QXTOOLS_BOARD_GEOMETRY and QXTOOLS_BOARD_RUN_TIME_US.
emulated_board::Settings SettingsFromEnvironment();

// QXTOOLS_BOARD_FAULTS: comma-separated names, each with an optional "@" and use number.
void InjectFaultsFromEnvironment(CallLog& log);

// Returns: whether any of these variables is set.
bool IsSetInEnvironment();

}  // namespace qx::board
