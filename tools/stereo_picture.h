// Grey pictures, and reading them from picture files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qx::tools {

// The luma of a picture: height x width bytes, row by row without padding.
struct GrayPicture {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> luma;

  const std::uint8_t* Row(int y) const {
    return luma.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
  }
};

// Returns: whether the file at `path` starts like a picture that ReadPicture() can read.
// Errors:  std::runtime_error when it starts like another kind of picture.
bool IsPictureFile(const std::string& path);

// Reads a picture file through FFmpeg's image decoders. Colour becomes luma and 16 bits become 8;
// grey pictures of 8 bits keep their values.
// Errors: std::runtime_error that names the file and the reason.
GrayPicture ReadPicture(const std::string& path);

}  // namespace qx::tools
