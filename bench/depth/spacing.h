// How far the corners of a chessboard are from their neighbours, according to their depths.
#pragma once

#include <cstddef>
#include <vector>

#include "qxtools/stereo_camera.h"

namespace qx::bench {

// A corner of the rectified left picture. The depth is in the calibration's unit, NaN if missing.
struct Corner {
  double x = 0;
  double y = 0;
  double depth = 0;
};

struct Spacing {
  int distances = 0;  // between neighbours that both have a depth
  int missing = 0;    // corners without a depth
  double mean = 0;    // in the calibration's unit
  double spread = 0;  // standard deviation
};

// Inputs:  corners  row by row, `columns` in each row.
Spacing MeasureSpacing(const std::vector<Corner>& corners, std::size_t columns,
                       const utils::stereo::StereoGeometry& geometry);

// Returns: the standard deviation of the distances between neighbours if the disparity of each
//          corner had an independent error of `noise` pixels (standard deviation), to first order.
//          With a corner P at depth z on the viewing ray r = P / z, the error of z is
//          z^2 / (f B) noise; along the unit vector u to the neighbour, it changes their distance
//          by u . r times that.
double ExplainedSpread(const std::vector<Corner>& corners, std::size_t columns,
                       const utils::stereo::StereoGeometry& geometry, double noise);

}  // namespace qx::bench
