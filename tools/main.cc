#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
  CLI::App app("Camera-based vision from the command line");
  app.set_version_flag("--version", QXTOOLS_VERSION);
  CLI11_PARSE(app, argc, argv);
  return 0;
}
