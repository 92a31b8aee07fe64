#include "qx_utils/image/kernels/pixel_rows.h"

#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::utils::image {
namespace {

constexpr PixelRowsVariant kVariants[] = {
#if defined(__x86_64__)
    {"avx2", internal::kCpuAvx2, &kPixelRowsAvx2},
#endif
    {"scalar", 0, &kPixelRowsScalar},
};

}  // namespace

const PixelRowsVariant* PixelRowsVariants(std::size_t* count) {
  *count = sizeof(kVariants) / sizeof(kVariants[0]);
  return kVariants;
}

const PixelRowsKernel& ActivePixelRows() {
  std::size_t count = 0;
  const PixelRowsVariant* table = PixelRowsVariants(&count);
  return *internal::BestVariant(table, count, internal::ActiveFeatures()).kernel;
}

}  // namespace qx::utils::image
