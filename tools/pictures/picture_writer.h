// The file formats of decoded pictures.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>

#include "tools/image.h"
#include "tools/pictures/output_file.h"

namespace qx::tools {

class PictureWriter {
 public:
  virtual ~PictureWriter() = default;

  // Inputs: a frame from the library's decoder.
  // Errors: those of OutputFile; std::runtime_error when the format cannot hold this picture after
  //         the earlier ones.
  virtual void Write(const FramePtr& frame) = 0;
};

struct PictureFormat {
  const char* name;           // also the extension of its files
  std::size_t most_pictures;  // in one file; 0: any number

  // Inputs: frame_rate  "N:D", for formats that have a header
  //         file        borrowed for the writer's life
  std::unique_ptr<PictureWriter> (*make_writer)(const std::string& frame_rate, OutputFile& file);
};

// yuv: planar I420, whatever the sizes; y4m: the same with headers, all of one size; png: one
// picture as RGB. A 4:2:0 picture of odd size has chroma planes of
// (width + 1) / 2 x (height + 1) / 2 samples.
extern const std::array<PictureFormat, 3> kPictureFormats;

}  // namespace qx::tools
