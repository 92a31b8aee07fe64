// The subcommands of `qxtools`. Each has its own file with one function that adds it to the
// command; its callback does the work.
//
// A callback that returns has succeeded. It reports a failure by throwing a std::exception, whose
// text becomes the one line on standard error; the exit status is 1. It reports wrong arguments by
// throwing a CLI::ParseError; the exit status is 2.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

namespace qx::tools {

void AddBoard(CLI::App& app);
void AddDecode(CLI::App& app);
void AddDoctor(CLI::App& app);
void AddImage(CLI::App& app);
void AddIsa(CLI::App& app);
void AddProbe(CLI::App& app);
void AddRectify(CLI::App& app);
void AddStereo(CLI::App& app);

// Restricts an option's values; its help and its error message say which it accepts.
// AcceptNumbers(): whole numbers from `low` to `high`; AcceptPositive(): numbers above 0.
void AcceptNumbers(CLI::Option* option, std::uint64_t low, std::uint64_t high = UINT64_MAX);
void AcceptPositive(CLI::Option* option);
void AcceptChoices(CLI::Option* option, const std::vector<std::string>& choices);

}  // namespace qx::tools
