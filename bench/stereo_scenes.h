// Stereo pairs to measure with.
#pragma once

#include <cstdint>
#include <string>

#include "tools/image.h"

namespace qx::bench {

struct Scene {
  std::string name;
  tools::FramePtr left, right;       // kQXPixelFormatGray8, of the same size
  int disparities = 1;               // to search
  tools::Image<std::uint8_t> truth;  // empty: not known
  double truth_scale = 1;            // grey value per pixel of disparity
};

// Loads the pair in a folder: the pictures whose names begin with "left" and "right", and the true
// disparities of the left one, whose name begins with "disp" and does not contain "right".
//
// Input:  spec  FOLDER:DISPARITIES:SCALE, the last for the truth's grey values.
// Errors: std::exception with a text.
Scene LoadScene(const std::string& spec);

// Returns: width x height pixels from the middle of a scene, first enlarged by a whole number as
//          far as that takes. Without a truth.
Scene CutScene(const Scene& scene, int width, int height, int disparities);

}  // namespace qx::bench
