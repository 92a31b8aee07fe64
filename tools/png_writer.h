// PNG pictures through libpng: the one place that knows it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/output_file.h"

namespace qx::tools {

// Writes a picture of 8-bit RGB, height x width x 3 bytes without padding.
// Errors: those of OutputFile, or std::runtime_error when libpng refuses the picture.
void WritePng(OutputFile& file, std::size_t width, std::size_t height, const std::uint8_t* rgb);

}  // namespace qx::tools
