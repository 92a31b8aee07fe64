// Packed 24-bit pixels widened to 32 bits.
#pragma once

#include <cstddef>

#include "qxtools/export.h"

namespace qx::utils::image {

// Widens packed pixels to pixels of memory order A, R, G, B whose alpha byte is 0. Rows do not
// matter: the buffer is one run of src_len / 3 pixels, at any alignment.
//
// Inputs:  src  `src_len` bytes, 3 per pixel: R, G, B for the first function and B, G, R for the
//               second. Not written, and not read beyond `src_len`.
// Output:  dst  room for `dst_len` bytes, caller-owned. Exactly 4 * (src_len / 3) bytes are
//               written; those beyond stay as they are. Pointers may be null when `src_len` is 0.
// Overlap: allowed. The bytes A, R, G, B of each pixel are then written one after the other,
//          without vector instructions, and a source byte that was overwritten before is read as
//          it is by then. So RGB pixels at the end of the destination are widened in place.
// Returns: 0.
// Errors:  ends the process through a fatal log line, before any byte is written, unless
//          src_len % 3 == 0 and dst_len / 4 >= src_len / 3.
// Threads: reentrant; works on the calling thread.
// Cost:    one pass at the speed of memory, no allocation. On x86-64 a destination of 16 MiB or
//          more bypasses the caches, as it would push everything else out of them.
// Exact:   the same bytes for every instruction set.
QXTOOLS_EXPORT int CvtColorRGB2ARGB(unsigned char* src, std::size_t src_len, unsigned char* dst,
                                    std::size_t dst_len);
QXTOOLS_EXPORT int CvtColorBGR2ARGB(unsigned char* src, std::size_t src_len, unsigned char* dst,
                                    std::size_t dst_len);

}  // namespace qx::utils::image
