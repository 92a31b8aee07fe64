// Files of one picture.
#pragma once

#include <cstdint>

#include "tools/image.h"
#include "tools/pictures/output_file.h"

namespace qx::tools {

// Errors of all: those of OutputFile; WritePng also std::runtime_error when libpng refuses the
// picture.

// Writes a PNG file of 8 bits per colour, or of 8 or 16 bits of grey.
void WritePng(const Image<Rgb>& picture, OutputFile& file);
void WritePng(const Image<std::uint8_t>& picture, OutputFile& file);
void WritePng(const Image<std::uint16_t>& picture, OutputFile& file);

// Writes a PGM file of 16 bits per pixel, most significant byte first.
void WritePgm(const Image<std::uint16_t>& picture, OutputFile& file);

// Writes a PFM file: 32-bit floats in the byte order of this machine, the bottom row first.
void WritePfm(const Image<float>& picture, OutputFile& file);

}  // namespace qx::tools
