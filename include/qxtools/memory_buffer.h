// Buffers that record the kind of memory they are in, and copies between any two kinds.
//
// The library has no device behind this interface: nothing is allocated and nothing is copied. The
// records and functions are what an application's own device layer and its callers agree on.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qxtools/export.h"

namespace qx::utils {

// Kinds of memory. The library passes the value through and never looks at it.
enum MemType : std::uint32_t {
  kMemTypeHost = 0,          // ordinary memory of the process
  kMemTypeDevice = 1,        // memory that only the device reads and writes
  kMemTypeDeviceCached = 2,  // device memory mapped into the process, kept coherent by flushes
};

// A block of memory on a device. A plain record: copying it copies the description, and nobody
// releases the memory through it. The order of the fields is part of the binary interface.
struct MemoryBuffer {
  void* data;              // first byte; null when there is no memory
  std::uint64_t reserved;  // read by no operation of the library
  std::size_t size;        // bytes at `data`
  MemType mem_type;
  std::int32_t device;  // index of the device that owns the memory
};

// Asks for `size` bytes of memory of kind `type` on device number `device`.
//
// Returns: an empty buffer of that kind: `data` null, everything else 0. A null `data` means
//          failure, which is the only outcome here.
// Threads: reentrant, as are the copies below.
[[nodiscard]] QXTOOLS_EXPORT MemoryBuffer AllocMem(std::size_t size, MemType type, int device);

// Copies `src_size` bytes at `src` to the `dst_size` bytes at `dst`.
//
// Returns: -1002, the code for "no way to copy between these kinds of memory", for all arguments.
//          No byte is read or written and nothing is logged.
QXTOOLS_EXPORT int MemCpy(void* dst, std::size_t dst_size, MemType dst_type, int dst_device,
                          void* src, std::size_t src_size, MemType src_type, int src_device);

// The same for two buffers; passes on all of their fields except `reserved`.
QXTOOLS_EXPORT int MemCpy(MemoryBuffer& dst, const MemoryBuffer& src);

}  // namespace qx::utils
