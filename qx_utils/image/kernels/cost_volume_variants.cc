#include "qx_utils/image/kernels/cost_volume.h"
#include "qx_utils/internal/cpu_features.h"

namespace qx {
namespace utils {
namespace image {
namespace {

std::size_t NoScratch(const CostVolumeJob& /*job*/) { return 0; }

constexpr CostVolumeVariant kVariants[] = {
#if defined(__x86_64__)
    {"avx512vnni", internal::kCpuAvx512Vnni, CostVolumeRowsAvx512Vnni, CostVolumeScratchAvx512Vnni},
    {"avx2", internal::kCpuAvx2, CostVolumeRowsAvx2, CostVolumeScratchAvx2},
#elif defined(__aarch64__)
    {"neon_dotprod", internal::kCpuNeonDotprod, CostVolumeRowsNeonDotprod,
     CostVolumeScratchNeonDotprod},
    {"neon", internal::kCpuNeon, CostVolumeRowsNeon, CostVolumeScratchNeon},
#endif
    {"scalar", 0, CostVolumeRowsScalar, NoScratch},
};

}  // namespace

const CostVolumeVariant* CostVolumeVariants(std::size_t* count) {
  *count = sizeof(kVariants) / sizeof(kVariants[0]);
  return kVariants;
}

}  // namespace image
}  // namespace utils
}  // namespace qx
