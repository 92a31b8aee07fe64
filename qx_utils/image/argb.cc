#include "qxtools/argb.h"

#include <glog/logging.h>

#include <cstdint>

#include "qx_utils/image/kernels/argb.h"
#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::utils::image {
namespace {

const ArgbVariant& ActiveVariant() {
  std::size_t count = 0;
  const ArgbVariant* table = ArgbVariants(&count);
  return internal::BestVariant(table, count, internal::ActiveFeatures());
}

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
    (kArgbScalar.*order)(src, dst, pixels);
  } else {
    WidenToArgb(ActiveVariant(), order, src, dst, pixels);
  }
  return 0;
}

}  // namespace

void WidenToArgb(const ArgbVariant& variant, ArgbRun ArgbRuns::*order, const std::uint8_t* src,
                 std::uint8_t* dst, std::size_t pixels) {
  const std::size_t ahead = (0 - reinterpret_cast<std::uintptr_t>(dst)) % kArgbStreamAlignment;
  if (variant.streaming == nullptr || pixels < kArgbStreamingBytes / 4 || ahead % 4 != 0) {
    (variant.cached->*order)(src, dst, pixels);
    return;
  }
  (variant.cached->*order)(src, dst, ahead / 4);
  (variant.streaming->*order)(src + ahead / 4 * 3, dst + ahead, pixels - ahead / 4);
}

int CvtColorRGB2ARGB(unsigned char* src, std::size_t src_len, unsigned char* dst,
                     std::size_t dst_len) {
  return Convert(&ArgbRuns::rgb, src, src_len, dst, dst_len);
}

int CvtColorBGR2ARGB(unsigned char* src, std::size_t src_len, unsigned char* dst,
                     std::size_t dst_len) {
  return Convert(&ArgbRuns::bgr, src, src_len, dst, dst_len);
}

}  // namespace qx::utils::image
