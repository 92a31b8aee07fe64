#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <iostream>
#include <limits>
#include <string>
#include <system_error>

#include "tools/commands.h"
#include "tools/console/messages.h"
#include "tools/media/ffmpeg.h"

namespace {

// In the order of --help.
constexpr std::initializer_list<void (*)(CLI::App&)> kSubcommands = {
    qx::tools::AddStereo, qx::tools::AddRectify, qx::tools::AddProbe, qx::tools::AddDecode,
    qx::tools::AddImage,  qx::tools::AddBoard,   qx::tools::AddIsa,   qx::tools::AddDoctor};

enum ExitStatus { kSuccess = 0, kFailure = 1, kUsage = 2 };

// If the caller closed a standard stream, the next file to be opened would get its number and
// receive its output. These stand-ins are opened for reading, so every write to them fails.
void OccupyStandardStreams() {
  int descriptor = open("/dev/null", O_RDONLY);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = open("/dev/null", O_RDONLY);
  if (descriptor >= 0) close(descriptor);
}

// OpenMP's threads spin while they wait for work, and so take the processor from the threads that
// decode and write: on two cores `stereo` needed 1.6 times as long. OpenMP reads its setting when
// it is loaded, so the program starts itself again with it; if that fails, it continues as it is.
void WaitWithoutSpinning(int argc, char** argv) {
  const auto matches_or_rectifies = [](const char* word) {
    return std::strcmp(word, "stereo") == 0 || std::strcmp(word, "rectify") == 0;
  };
  if (std::getenv("OMP_WAIT_POLICY") != nullptr) return;
  if (std::none_of(argv + 1, argv + argc, matches_or_rectifies)) return;
  setenv("OMP_WAIT_POLICY", "passive", 0);
  execv("/proc/self/exe", argv);
}

// A full disk may only be reported when the buffers are flushed.
void FlushStandardOutput() {
  std::cout.flush();
  if (!std::cout || std::fflush(stdout) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot write standard output");
  }
}

// Returns: the command line that shows the help of the chosen subcommand.
std::string HelpCommand(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return "`qxtools " + (chosen.empty() ? "" : chosen.front()->get_name() + ' ') + "--help`";
}

// The first word that is not a flag must be a subcommand.
void CheckSubcommand(CLI::App& app, int argc, char** argv) {
  char** const word = std::find_if(argv + 1, argv + argc, [](const char* a) { return *a != '-'; });
  if (word == argv + argc) return;
  const auto is_named = [word](CLI::App* subcommand) { return subcommand->check_name(*word); };
  if (app.get_subcommands(is_named).empty()) {
    throw CLI::ExtrasError("there is no command '" + std::string(*word) + "'",
                           CLI::ExitCodes::ExtrasError);
  }
}

ExitStatus Parse(CLI::App& app, int argc, char** argv) {
  try {
    CheckSubcommand(app, argc, argv);
    app.parse(argc, argv);
    if (app.get_subcommands().empty()) throw CLI::RequiredError("a command");
  } catch (const CLI::Success& stop) {  // --help, --version
    app.exit(stop);
  } catch (const CLI::ParseError& error) {
    qx::tools::PrintMessage(std::string(error.what()) + "; see " + HelpCommand(app));
    return kUsage;
  }
  return kSuccess;
}

int Run(int argc, char** argv) {
  CLI::App app("Stereo vision and H.264/H.265 video from the command line.", "qxtools");
  app.set_version_flag("--version", std::string("qxtools ") + QXTOOLS_VERSION);
  app.add_flag_callback(
      "-v,--verbose",
      [] {
        qx::tools::ShowLibraryLog();
        qx::tools::ShowFfmpegLog();
      },
      "Show the library's log on standard error");
  app.require_subcommand(0, 1);  // Parse() has a better message for none
  app.fallthrough();
  app.footer(
      "Exit status: 0 success, 1 failure (one line on standard error says why), 2 wrong usage.\n"
      "`qxtools COMMAND --help` shows options and examples.");
  for (const auto add : kSubcommands) add(app);
  const int status = Parse(app, argc, argv);
  if (status == kSuccess) FlushStandardOutput();
  return status;
}

}  // namespace

namespace qx::tools {

void AcceptNumbers(CLI::Option* option, std::uint64_t low, std::uint64_t high) {
  const auto check = [low, high](const std::string& text) -> std::string {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec == std::errc() && result.ptr == end && low <= number && number <= high) return {};
    const bool open = high == std::numeric_limits<std::uint64_t>::max();
    return "'" + text + "' is not a whole number " +
           (open ? "of " + std::to_string(low) + " or more"
                 : "from " + std::to_string(low) + " to " + std::to_string(high));
  };
  option->type_name("N")->check(CLI::Validator(check, ""));
}

void AcceptPositive(CLI::Option* option) {
  const auto check = [](const std::string& text) -> std::string {
    double number = 0;
    const bool is_number = CLI::detail::lexical_cast(text, number);
    return is_number && number > 0 && std::isfinite(number) ? "" : "'" + text + "' is not above 0";
  };
  option->type_name("X")->check(CLI::Validator(check, ""));
}

void AcceptChoices(CLI::Option* option, const std::vector<std::string>& choices) {
  const auto check = [choices](const std::string& text) -> std::string {
    if (std::find(choices.begin(), choices.end(), text) != choices.end()) return {};
    return "'" + text + "' is not one of " + CLI::detail::join(choices, ", ");
  };
  option->type_name("{" + CLI::detail::join(choices, ",") + "}")->check(CLI::Validator(check, ""));
}

}  // namespace qx::tools

int main(int argc, char** argv) {
  WaitWithoutSpinning(argc, argv);
  OccupyStandardStreams();
  // A reader that closed its pipe and a file at its size limit are errors like any other.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  qx::tools::QuietLibraryLog(argv[0]);
  qx::tools::HideFfmpegLog();
  try {
    return Run(argc, argv);
  } catch (const std::exception& failure) {
    qx::tools::PrintMessage(failure.what());
    return kFailure;
  }
}
