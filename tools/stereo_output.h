// Writing disparity maps to files.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tools/stereo_disparity.h"

namespace qx::tools {

// The folder for results, which a failed run leaves as it was: what was made here and is still
// empty in the end goes again.
class OutputFolder {
 public:
  explicit OutputFolder(const std::string& path) : path_(path) {}
  OutputFolder(const OutputFolder&) = delete;
  OutputFolder& operator=(const OutputFolder&) = delete;
  ~OutputFolder();

  // Makes it, with the folders above it, unless it exists.
  // Errors: std::system_error that names the folder and the reason.
  void Create();

 private:
  std::filesystem::path path_;
  std::vector<std::filesystem::path> made_;  // the outermost first
};

// Disparity in a PGM file = sample / kPgmScale. Sample 0 means missing; a disparity that would
// round to it is written as 1. Disparities up to 255 fit.
constexpr int kPgmScale = 256;

// Writes a PGM file of 16 bits per pixel, most significant byte first.
// Errors: std::system_error that names the file and the reason.
void WritePgmFile(const DisparityMap& map, const std::string& path);

// Paints the map with its legend (see Paint()) and writes it as a PNG file of 8 bits per colour.
// Errors: std::exception; std::system_error names the file and the reason.
void WritePngFile(const DisparityMap& map, int disparities, const std::string& path);

}  // namespace qx::tools
