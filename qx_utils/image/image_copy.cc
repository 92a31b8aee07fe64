#include "qxtools/image_copy.h"

#include <glog/logging.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace qx::utils::image {
namespace {

using RowCopier = std::function<void(void*, std::size_t, void*, std::size_t)>;

struct Rows {
  std::uint8_t* base;
  std::size_t pitch;
};

void CopyRows(const Rows& dst, const Rows& src, std::size_t bytes, std::size_t count,
              const RowCopier& copy_func) {
  // The library's own copier cannot fail here: the pitch holds every row.
  using Plain = void (*)(void*, std::size_t, void*, std::size_t);
  const Plain* plain = copy_func.target<Plain>();
  if (plain != nullptr && *plain == &MemcpyFunc) {
    for (std::size_t row = 0; row < count && bytes != 0; ++row) {
      std::memmove(dst.base + row * dst.pitch, src.base + row * src.pitch, bytes);
    }
    return;
  }
  for (std::size_t row = 0; row < count; ++row) {
    copy_func(dst.base + row * dst.pitch, dst.pitch, src.base + row * src.pitch, bytes);
  }
}

bool IsEven(std::size_t value, const char* check) {
  if (value % 2 == 0) return true;
  LOG(ERROR) << check;
  return false;
}

}  // namespace

void MemcpyFunc(void* dst, std::size_t dst_size, void* src, std::size_t src_size) {
  if (dst_size < src_size) {
    LOG(ERROR) << "dst_size >= src_size";
    return;
  }
  if (src_size != 0) std::memmove(dst, src, src_size);
}

int CopyImage(void* dst, std::size_t dst_w_stride, std::size_t dst_h_stride, void* src,
              std::size_t src_w_stride, std::size_t src_h_stride, QXPixelFormat format,
              RowCopier copy_func) {
  if (dst == nullptr) {
    LOG(ERROR) << "dst address is nullptr";
    return -1;
  }
  if (src == nullptr) {
    LOG(ERROR) << "src address is nullptr";
    return -1;
  }
  const std::size_t h_stride = std::min(dst_h_stride, src_h_stride);
  const std::size_t w_stride = std::min(dst_w_stride, src_w_stride);
  const Rows to{static_cast<std::uint8_t*>(dst), dst_w_stride};
  const Rows from{static_cast<std::uint8_t*>(src), src_w_stride};
  switch (format) {
    case kQXPixelFormatNV21:
    case kQXPixelFormatNV12:
      if (!IsEven(h_stride, "h_stride % 2 == 0") || !IsEven(w_stride, "w_stride % 2 == 0")) {
        return -1;
      }
      // The chroma rows continue the row numbers of the smaller luma plane in both buffers.
      CopyRows(to, from, w_stride, h_stride + h_stride / 2, copy_func);
      return 0;
    case kQXPixelFormatGray8:
    case kQXPixelFormatGray16:
    case kQXPixelFormatRGB888:
    case kQXPixelFormatBGR888:
    case kQXPixelFormatARGB8888:
    case kQXPixelFormatBGRA8888:
      CopyRows(to, from, w_stride, h_stride, copy_func);
      return 0;
    default:
      LOG(ERROR) << "not support format " << static_cast<std::uint32_t>(format);
      return -1;
  }
}

unsigned int AlignmentHelper(unsigned int value, unsigned int alignment) {
  if (alignment == 0) return 0;
  return (value - 1 + alignment) / alignment * alignment;
}

void ReleaseResources() {}

}  // namespace qx::utils::image
