#include "qxtools/memory_buffer.h"

namespace qx::utils {
namespace {

constexpr int kCopyNotSupported = -1002;

}  // namespace

MemoryBuffer AllocMem(std::size_t /*size*/, MemType type, int /*device*/) {
  return {nullptr, 0, 0, type, 0};
}

int MemCpy(void* /*dst*/, std::size_t /*dst_size*/, MemType /*dst_type*/, int /*dst_device*/,
           void* /*src*/, std::size_t /*src_size*/, MemType /*src_type*/, int /*src_device*/) {
  return kCopyNotSupported;
}

int MemCpy(MemoryBuffer& dst, const MemoryBuffer& src) {
  return MemCpy(dst.data, dst.size, dst.mem_type, dst.device, src.data, src.size, src.mem_type,
                src.device);
}

}  // namespace qx::utils
