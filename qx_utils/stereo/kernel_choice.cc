#include "qx_utils/stereo/kernel_choice.h"

#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::utils::stereo {
namespace {

template <typename Variant>
const auto& BestOf(const Variant* (*variants)(std::size_t*)) {
  std::size_t count = 0;
  const Variant* const table = variants(&count);
  return *internal::BestVariant(table, count, internal::ActiveFeatures()).kernel;
}

}  // namespace

const FeatureKernel& ChosenFeatures() { return BestOf(FeatureVariants); }
const image::CostVolumeKernel& ChosenCostVolume() { return BestOf(image::CostVolumeVariants); }
const RemapKernel& ChosenRemap() { return BestOf(RemapVariants); }
const SemiGlobalKernel& ChosenSemiGlobal() { return BestOf(SemiGlobalVariants); }
const MedianKernel& ChosenMedian() { return BestOf(MedianVariants); }

}  // namespace qx::utils::stereo
