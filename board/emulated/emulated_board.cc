#include "qxtools/emulated_board.h"

#include "board/emulated/board.h"
#include "board/emulated/container.h"

namespace qx::emulated_board {

using board::Board;

bool IsEmulated() { return true; }
Settings GetSettings() { return Board::Get().settings(); }
void SetSettings(const Settings& settings) { Board::Get().SetSettings(settings); }
Status GetStatus() { return Board::Get().GetStatus(); }
void FailCall(const std::string& name, unsigned nth) { Board::Get().log().Inject(name, nth); }
std::size_t ClearFaults() { return Board::Get().log().ClearFaults(); }
std::vector<std::string> FaultNames() { return board::FaultNames(); }
void EndHungRun() { Board::Get().unit().EndHungRun(); }
void StartRecording() { Board::Get().log().Start(); }
std::vector<Call> TakeRecording() { return Board::Get().log().Take(); }
void CheckContainer(const std::string& text) { board::ParseContainer(text); }

}  // namespace qx::emulated_board
