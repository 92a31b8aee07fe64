#include <omp.h>

#include <algorithm>

#include "bench/cost_volume_rivals.h"

#if defined(QXTOOLS_HAVE_ONEDNN)
#include <oneapi/dnnl/dnnl.h>
#endif

namespace qx::bench {

#if defined(QXTOOLS_HAVE_ONEDNN)

bool OnednnBands::Available() { return true; }

void OnednnBands::Run(const utils::image::CostVolumeJob& job, std::size_t rows) {
  const std::size_t most = strip_ + job.disparities - 1;
  results_.resize(static_cast<std::size_t>(omp_get_max_threads()));
  for (auto& result : results_) result.resize(strip_ * most);
#pragma omp parallel for schedule(static)
  for (std::size_t y = 0; y < rows; ++y) {
    std::int32_t* result = results_[static_cast<std::size_t>(omp_get_thread_num())].data();
    for (std::size_t x = 0; x < job.width; x += strip_) {
      const std::size_t first = x + 1 > job.disparities ? x + 1 - job.disparities : 0;
      const auto m = static_cast<dnnl_dim_t>(std::min(strip_, job.width - x));
      const auto n = static_cast<dnnl_dim_t>(x - first) + m;
      const auto k = static_cast<dnnl_dim_t>(job.channels);
      const std::int32_t no_offset = 0;
      dnnl_gemm_s8s8s32('N', 'T', 'F', m, n, k, 1.0F, job.left + (y * job.width + x) * job.channels,
                        k, 0, job.right + (y * job.width + first) * job.channels, k, 0, 0.0F,
                        result, n, &no_offset);
    }
  }
}

#else

bool OnednnBands::Available() { return false; }
void OnednnBands::Run(const utils::image::CostVolumeJob& /*job*/, std::size_t /*rows*/) {}

#endif

}  // namespace qx::bench
