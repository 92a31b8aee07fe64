// Packed 24-bit pixels widened to 32 bits.
#pragma once

#include <cstddef>

#include "qxtools/export.h"

namespace qx::utils::image {

// Widens packed pixels to pixels of memory order A, R, G, B with an alpha byte of 0. There are no
// rows: the buffer is one run of src_len / 3 pixels, at any alignment.
//
// Inputs:  src  `src_len` bytes, 3 per pixel: R, G, B for the first function and B, G, R for the
//               second. Never written, and not read past `src_len`.
// Output:  dst  room for `dst_len` bytes, caller-owned. Exactly 4 * (src_len / 3) bytes are
//               written; bytes after them are untouched. Pointers may be null when `src_len` is 0.
// Overlap: allowed. The bytes A, R, G, B of each pixel are then written one by one, without vector
//          instructions, and a source byte that was already overwritten is read with its new
//          value. RGB pixels at the end of the destination are thus widened in place.
// Returns: 0.
// Errors:  ends the process through a fatal log line, before any byte is written, unless
//          src_len % 3 == 0 and dst_len / 4 >= src_len / 3.
// Threads: reentrant; works on the calling thread.
// Cost:    one pass at memory speed, no allocation. On x86-64 a destination of 16 MiB or more
//          bypasses the caches, which it would otherwise flush.
// Exact:   the same bytes for every instruction set.
QXTOOLS_EXPORT int CvtColorRGB2ARGB(unsigned char* src, std::size_t src_len, unsigned char* dst,
                                    std::size_t dst_len);
QXTOOLS_EXPORT int CvtColorBGR2ARGB(unsigned char* src, std::size_t src_len, unsigned char* dst,
                                    std::size_t dst_len);

}  // namespace qx::utils::image
