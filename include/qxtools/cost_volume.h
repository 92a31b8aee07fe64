// The stereo cost volume of two 8-bit feature maps, computed on the processor.
#pragma once

#include "qxtools/export.h"
#include "qxtools/image_frame.h"

namespace qx::utils::image {

// Computes the correlation of a left and a right feature map for disparities 0 .. D-1: how well
// the left pixel at column x matches the right pixel at column x - d of the same row.
//
// Inputs:  input_l, input_r  H x W x C values, row by row, channels of a pixel adjacent; every
//                            byte is a signed 8-bit integer. Same shape; borrowed for the call.
//          scale of each frame: a cost is the sum of products times
//                            input_r->scale * input_l->scale * output->scale * (1 / C).
//          C                 a multiple of 32. For other values only whole blocks of 32 channels
//                            enter the sum, but the factor still divides by C; C < 32 gives 0.
// Output:  output            H x W x D bytes at Data(), D = Channel(): the D costs of a pixel are
//                            adjacent, each a signed 8-bit integer. Columns x < d of disparity d
//                            are 0. Bytes after H x W x D are not written. The output may overlap
//                            an input; the call then needs a temporary copy of the volume.
//          Negative costs are scaled by 0.1015625, all are rounded to the nearest integer, ties
//          towards positive infinity, and the low 8 bits are written: 130 becomes the byte 0x82.
//          A NaN cost becomes 0.
// Errors:  ends the process through a fatal log line when a pixel format is not
//          kQXPixelFormatUint8 or the two inputs differ in DataSize().
//          Leaves the output untouched and logs one ERROR line when a frame pointer is null, the
//          inputs differ in shape, the output has another height or width, a product
//          height x width x channels exceeds 32 bits or the frame's DataSize(), or Data() is null
//          for a frame that is not empty.
//          std::bad_alloc reaches the caller; the output is then untouched.
// Threads: reentrant for different outputs. Rows are shared among the caller's OpenMP threads. The
//          frames' accessors are called once each, on the calling thread.
// Cost:    H x W x D x C multiplications less the columns x < d; below 1 MiB of memory per thread
//          for ordinary shapes. One INFO line with the shapes.
// Exact:   the same bytes for every instruction set and every number of threads. The environment
//          variable QXTOOLS_FORCE_ISA names an instruction set to use, for diagnosis.
QXTOOLS_EXPORT void CostVolume(velkar::vision::ImageFrame* input_l,
                               velkar::vision::ImageFrame* input_r,
                               velkar::vision::ImageFrame* output);

}  // namespace qx::utils::image
