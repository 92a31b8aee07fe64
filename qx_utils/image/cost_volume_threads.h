#pragma once

#include <cstddef>

#include "qx_utils/image/kernels/cost_volume.h"

namespace qx {
namespace utils {
namespace image {

// Computes rows 0 .. rows - 1 of a job with one variant on the OpenMP threads of the caller, each
// of which takes a contiguous share. Throws std::bad_alloc before any thread has started.
void ComputeCostVolume(const CostVolumeVariant& variant, const CostVolumeJob& job,
                       std::size_t rows);

}  // namespace image
}  // namespace utils
}  // namespace qx
