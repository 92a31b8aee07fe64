// The file formats of decoded pictures.
#pragma once

#include <memory>
#include <string>

#include "tools/output_file.h"
#include "tools/planar_picture.h"

namespace qx::tools {

class PictureWriter {
 public:
  virtual ~PictureWriter() = default;

  // Errors: those of OutputFile; std::runtime_error when the format cannot hold this picture behind
  //         those before it.
  virtual void Write(const PlanarPicture& picture) = 0;
};

// Inputs:  format      "yuv": the pictures' planes and nothing else, whatever their sizes;
//                      "y4m": a header, then pictures of one size; "png": one picture, as RGB.
//          frame_rate  for the header of y4m: "N:D".
//          file        borrowed for the writer's life.
std::unique_ptr<PictureWriter> MakePictureWriter(const std::string& format,
                                                 const std::string& frame_rate, OutputFile& file);

}  // namespace qx::tools
