// The subcommands of `qxtools`. Each lives in its own file, which exposes one function that adds it
// to the command; its callback does the work.
//
// A callback that returns means success. It reports a failure by throwing any std::exception: the
// text becomes the one line on standard error, the exit status is 1. Arguments that turn out to be
// wrong are reported by CLI::ValidationError: exit status 2.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

namespace qx::tools {

void AddBoard(CLI::App& app);
void AddDecode(CLI::App& app);
void AddDoctor(CLI::App& app);
void AddIsa(CLI::App& app);
void AddProbe(CLI::App& app);
void AddStereo(CLI::App& app);

// What an option takes, for its help and with an error text that says it. AcceptNumbers(): whole
// numbers from `low` to `high`.
void AcceptNumbers(CLI::Option* option, std::uint64_t low, std::uint64_t high = UINT64_MAX);
void AcceptChoices(CLI::Option* option, const std::vector<std::string>& choices);

}  // namespace qx::tools
