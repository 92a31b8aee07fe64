// Filling the pixels of a disparity map that have none.
#pragma once

#include "tools/stereo_disparity.h"

namespace qx::tools {

// Most disparities are missing where the left camera sees what an object hides from the right one.
// What is hidden lies behind the object: a gap in a row takes the smaller disparity of its two
// ends, a gap at the border that of its one end, and a row without any the nearest row's. The
// median of the neighbourhood then joins the rows of what was filled; measured pixels keep their
// values.
// Returns: a map in which nothing is missing; all 0 when there is nothing to fill from.
DisparityMap FillMissing(const DisparityMap& map);

}  // namespace qx::tools
