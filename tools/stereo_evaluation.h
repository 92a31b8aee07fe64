// How far a disparity map is from the truth.
#pragma once

#include "tools/stereo_disparity.h"
#include "tools/stereo_picture.h"

namespace qx::tools {

// Shares of the pixels whose true disparity is known, 0 .. 1.
struct Errors {
  double missing = 0;
  double above_1 = 0;  // off by more than 1 px, or missing
  double above_2 = 0;  // off by more than 2 px, or missing
};

// Inputs:  truth  of the same size; grey value = disparity * scale, 0 where it is not known.
// Errors:  std::runtime_error when the sizes differ or no pixel is known.
Errors Evaluate(const DisparityMap& map, const GrayPicture& truth, double scale);

}  // namespace qx::tools
