#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <initializer_list>
#include <iostream>
#include <string>
#include <system_error>

#include "tools/commands.h"
#include "tools/library_log.h"
#include "tools/passwords.h"

namespace {

// In the order of --help.
constexpr std::initializer_list<void (*)(CLI::App&)> kSubcommands = {
    qx::tools::AddStereo, qx::tools::AddProbe, qx::tools::AddDecode,
    qx::tools::AddBoard,  qx::tools::AddIsa,   qx::tools::AddDoctor};

enum ExitStatus { kSuccess = 0, kFailure = 1, kUsage = 2 };

// A standard stream that the caller closed would let the next file that is opened take its number
// and its output. Opened for reading, every write to it fails.
void OccupyStandardStreams() {
  int descriptor = open("/dev/null", O_RDONLY);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = open("/dev/null", O_RDONLY);
  if (descriptor >= 0) close(descriptor);
}

// Results count only when they have arrived: a full disk may show as late as here.
void FlushStandardOutput() {
  std::cout.flush();
  if (!std::cout || std::fflush(stdout) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot write standard output");
  }
}

// Returns: `text` on one line.
std::string OneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return text;
}

int Run(int argc, char** argv) {
  CLI::App app("Stereo vision and H.264/H.265 video from the command line.", "qxtools");
  app.set_version_flag("--version", std::string("qxtools ") + QXTOOLS_VERSION);
  app.add_flag_callback(
      "-v,--verbose", [] { qx::tools::ShowLibraryLog(1); },
      "Show the library's log on standard error");
  app.failure_message([](const CLI::App* failed, const CLI::Error& error) {
    return qx::tools::WithoutPasswords(CLI::FailureMessage::simple(failed, error));
  });
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(
      "Exit status: 0 success, 1 failure (one line on standard error says why), 2 wrong usage.\n"
      "`qxtools COMMAND --help` shows options and examples.");
  for (const auto add : kSubcommands) add(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& stop) {
    if (app.exit(stop) != 0) return kUsage;  // --help and --version stop here too
  }
  FlushStandardOutput();
  return kSuccess;
}

}  // namespace

int main(int argc, char** argv) {
  OccupyStandardStreams();
  // A reader that went away and a file at its size limit are errors like any other.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  qx::tools::QuietLibraryLog(argv[0]);
  try {
    return Run(argc, argv);
  } catch (const std::exception& failure) {
    const std::string reason = OneLine(qx::tools::WithoutPasswords(failure.what()));
    std::fprintf(stderr, "qxtools: %s\n", reason.c_str());
    return kFailure;
  }
}
