#include "qx_utils/image/kernels/pixel_rows-inl.h"

namespace qx::utils::image {

const PixelRowsKernel kPixelRowsAvx2 = MakePixelRows();

}  // namespace qx::utils::image
