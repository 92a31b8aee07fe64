// Row-wise copies of pictures between buffers of different row pitch.
#pragma once

#include <cstddef>
#include <functional>

#include "qxtools/export.h"
#include "qxtools/image_frame.h"

namespace qx::utils::image {

// Copies `src_size` bytes; `dst_size` is the capacity at `dst`. Nothing past `src_size` bytes is
// written. The two ranges may overlap.
//
// Errors: when dst_size < src_size nothing is copied and "dst_size >= src_size" is logged at ERROR.
QXTOOLS_EXPORT void MemcpyFunc(void* dst, std::size_t dst_size, void* src, std::size_t src_size);

// Copies the part of a picture that two buffers of different geometry have in common.
//
// Inputs:  w_stride   row pitch in bytes; h_stride  rows of the first (luma or only) plane.
//          format     one of the single-plane formats (values 1, 3, 12 to 15), or NV12 or NV21,
//                     whose chroma plane of h_stride / 2 rows follows at the same pitch: such a
//                     buffer holds 3 * h_stride / 2 rows.
//          copy_func  called once per row, top to bottom, with (destination row, destination pitch,
//                     source row, bytes to copy). An exception it throws reaches the caller; an
//                     empty one raises std::bad_function_call at the first row.
// Output:  the smaller pitch of each row and the smaller number of rows; nothing else is written.
//          The buffers may overlap if no row is overwritten before it is copied: rows can be moved
//          closer together in place, but not further apart.
// Returns: 0, or -1 with one ERROR line when a pointer is null, the format is not supported, or the
//          smaller height or pitch of a 4:2:0 picture is odd. Nothing is copied then.
// Threads: reentrant. No allocation.
QXTOOLS_EXPORT int CopyImage(
    void* dst, std::size_t dst_w_stride, std::size_t dst_h_stride, void* src,
    std::size_t src_w_stride, std::size_t src_h_stride, QXPixelFormat format,
    std::function<void(void*, std::size_t, void*, std::size_t)> copy_func = MemcpyFunc);

// Rounds `value` up to the next multiple of `alignment`, in 32-bit arithmetic that wraps.
// Returns: 0 when `alignment` is 0.
QXTOOLS_EXPORT unsigned int AlignmentHelper(unsigned int value, unsigned int alignment);

// Releases what the image functions hold, which is nothing; safe to call at any time.
QXTOOLS_EXPORT void ReleaseResources();

}  // namespace qx::utils::image
