#include "qxtools/argb.h"

#include <glog/logging.h>

#include <cstdint>

#include "qx_utils/image/kernels/argb.h"

namespace qx::utils::image {
namespace {

// Kernels read ahead of what they write, the definition does not.
bool Overlap(const unsigned char* src, const unsigned char* dst, std::size_t pixels) {
  const auto from = reinterpret_cast<std::uintptr_t>(src);
  const auto to = reinterpret_cast<std::uintptr_t>(dst);
  return from < to + 4 * pixels && to < from + 3 * pixels;
}

int Convert(ArgbRun ArgbRuns::*order, const unsigned char* src, std::size_t src_len,
            unsigned char* dst, std::size_t dst_len) {
  CHECK_EQ(src_len % 3, 0);
  CHECK_GE(dst_len / 4, src_len / 3);
  const std::size_t pixels = src_len / 3;
  if (Overlap(src, dst, pixels)) {
    (kArgbScalar.cached.*order)(src, dst, pixels);
  } else {
    WidenToArgb(ActiveArgbKernel(), order, src, dst, pixels);
  }
  return 0;
}

}  // namespace

int CvtColorRGB2ARGB(unsigned char* src, std::size_t src_len, unsigned char* dst,
                     std::size_t dst_len) {
  return Convert(&ArgbRuns::rgb, src, src_len, dst, dst_len);
}

int CvtColorBGR2ARGB(unsigned char* src, std::size_t src_len, unsigned char* dst,
                     std::size_t dst_len) {
  return Convert(&ArgbRuns::bgr, src, src_len, dst, dst_len);
}

}  // namespace qx::utils::image
