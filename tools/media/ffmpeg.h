// Everything that the command asks of FFmpeg directly. No other file of the command includes its
// headers.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tools/image.h"

namespace qx::tools {

// Returns: name and version of each FFmpeg library that is loaded, and of FFmpeg as a whole.
std::vector<std::pair<std::string, std::string>> FfmpegVersions();

// FFmpeg's own messages on standard error: none, or errors and warnings.
void HideFfmpegLog();
void ShowFfmpegLog();

// Returns: the URL by which FFmpeg finds a file. In a bare name it takes everything before a colon
//          for a protocol.
std::string FileUrl(const std::string& path);

// Reads a picture file. Colour becomes luma and 16 bits become 8; grey pictures of 8 bits keep
// their values. Errors: std::runtime_error that names the file and the reason.
Image<std::uint8_t> ReadPicture(const std::string& path);

// Reads the colours of a picture file. Returns: an empty picture if the file is grey.
// Errors: as ReadPicture().
Image<Rgb> ReadColours(const std::string& path);

// A planar 4:2:0 picture: width x height luma samples, then two chroma planes of
// (width + 1) / 2 x (height + 1) / 2 samples.
struct I420Picture {
  int width;
  int height;
  bool full_range;  // samples span 0 .. 255 instead of 16 .. 235 (chroma 16 .. 240)
  int matrix;       // a code of ITU-T H.273; 2 is not specified
  std::vector<std::uint8_t> samples;
};

// Converts by the range and the matrix of the picture; BT.601 if the matrix is not specified.
// Errors: std::runtime_error when FFmpeg cannot convert it.
Image<Rgb> ToRgb(I420Picture picture);

}  // namespace qx::tools
