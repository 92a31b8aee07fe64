// The kernels that stereo vision runs on: of each table the best that the processor has.
#pragma once

#include "qx_utils/image/kernels/cost_volume.h"
#include "qx_utils/stereo/kernels/disparity_map.h"
#include "qx_utils/stereo/kernels/features.h"
#include "qx_utils/stereo/kernels/remap.h"
#include "qx_utils/stereo/kernels/semi_global.h"

namespace qx::utils::stereo {

const FeatureKernel& ChosenFeatures();
const image::CostVolumeKernel& ChosenCostVolume();
const RemapKernel& ChosenRemap();
const SemiGlobalKernel& ChosenSemiGlobal();
const MedianKernel& ChosenMedian();

}  // namespace qx::utils::stereo
