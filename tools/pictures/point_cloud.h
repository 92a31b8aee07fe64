// Files of points.
#pragma once

#include <string>
#include <vector>

#include "qxtools/depth.h"
#include "tools/pictures/output_file.h"

namespace qx::tools {

// Writes a binary PLY file, little endian: of each point the floats x, y, z, the bytes red, green,
// blue, and, if asked for, the byte confidence.
//
// Inputs: comment  a line of the header.
// Errors: those of OutputFile.
void WritePly(const std::vector<utils::stereo::Point>& points, bool with_confidence,
              const std::string& comment, OutputFile& file);

}  // namespace qx::tools
