// How close semi-global aggregation comes to what a processor could do that completes four vector
// instructions in a cycle, see docs/stereo.md.
#pragma once

#include "bench/stereo_scenes.h"

namespace qx::bench {

struct AggregationSpeed {
  double seconds;  // of aggregation and selection for a volume that is there already
  double values;   // pixels times disparities, per second
  double bound;    // the same, if the processor had nothing to do but those instructions; or 0
};

// Measures with random costs in the size of a scene, 8 paths, the active instruction set and the
// current number of OpenMP threads. The best of `rounds`, and the bound in between.
AggregationSpeed MeasureAggregation(const Scene& scene, int rounds);

}  // namespace qx::bench
