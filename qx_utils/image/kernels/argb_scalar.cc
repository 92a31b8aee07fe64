#include "qx_utils/image/kernels/argb.h"

namespace qx::utils::image {
namespace {

template <int kRed, int kBlue>
void Run(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels) {
  for (std::size_t i = 0; i < pixels; ++i) {
    dst[4 * i] = 0;
    dst[4 * i + 1] = src[3 * i + kRed];
    dst[4 * i + 2] = src[3 * i + 1];
    dst[4 * i + 3] = src[3 * i + kBlue];
  }
}

}  // namespace

const ArgbKernel kArgbScalar = {{Run<0, 2>, Run<2, 0>}, {}};

}  // namespace qx::utils::image
