// The media-processing engine that comes with the library: FFmpeg's picture codecs and scaler, and
// libjpeg-turbo to write JPEG, behind the front ends of media_proc.h. It runs on the processor and
// needs no device.
//
//   using namespace qx::utils;
//   image::InstallFfmpegMediaProc();
//   auto picture = image::Decode(file.data(), file.size(), 0);
//   auto small = image::Resize(picture, 640, 360, 0);
//   const auto jpeg = image::Encode(small, image::kImageFileFormatJpeg, {90}, 0);
//
// Frames:  All formats of QXPixelFormat except kQXPixelFormatUint8 are taken and made. The pitch of
//          a decoder's frame comes from LayoutOf(); the planes of other frames follow without gaps,
//          and DataSize() must cover Width() x Height(). Frames that the engine makes own their
//          bytes and have no gaps. Their 4:2:0 frames have a layout for LayoutOf(), which states
//          range and matrix; chroma of an odd size is rounded up.
// Range:   4:2:0 frames without a layout are taken as BT.601, 16 .. 235.
// Size:    a picture has at most kMaxEnginePixels.
// Errors:  every failure is an empty result and one ERROR line, "<operation>: <reason>". No
//          exception leaves the engine, and no input ends the process. FFmpeg writes its own lines
//          to standard error, as everywhere in the library.
// Threads: any number of threads may call one engine at once, without a lock. Each call works on
//          the calling thread alone.
// Memory:  each thread keeps the last few scalers that it used, until it ends: some tables and rows
//          of a picture each.
#pragma once

#include <cstdint>
#include <memory>

#include "qxtools/export.h"
#include "qxtools/media_proc.h"

namespace qx::utils::image {

// The largest picture that the engine reads or makes, for example 16,384 x 8,192. A file whose
// header promises more is refused before memory is taken for it.
constexpr std::uint64_t kMaxEnginePixels = std::uint64_t{1} << 27;

// Returns: an engine of FFmpeg's parts; never empty. Engines are all alike.
//
// Its operations, with what they add to media_proc.h:
//
// Decode  JPEG (baseline and progressive), PNG, BMP and, where FFmpeg has its decoder, WebP, which
//         are told apart by their first bytes. The result is
//           kQXPixelFormatGray8     for grey files of up to 8 bits per pixel;
//           kQXPixelFormatGray16    for grey files of 16 bits;
//           kQXPixelFormatYUV420P   for JPEG and WebP files with 4:2:0 chroma, without alpha and
//                                   of even width and height: the file's own samples. A JPEG file's
//                                   are BT.601 with full range, a WebP file's 16 .. 235;
//           kQXPixelFormatARGB8888  for files with alpha, not premultiplied; palettes and WebP
//                                   without loss included;
//           kQXPixelFormatRGB888    for all others. 16 bits per channel are rounded to 8.
//         EXIF orientation is left alone: the picture is as it is stored. So are colour profiles,
//         gamma and resolution. JPEG files with four components (CMYK) are refused. So are
//         truncated files and those in which FFmpeg finds damage: a picture is whole or not there.
//         Bytes after the end of the picture are ignored.
// Encode  JPEG (baseline): `quality` scales the quantiser tables of ITU-T T.81, annex K; 50 leaves
//         them as they are, and 0 is 90. Gray8 gives one component. Chroma is 4:2:0 up to quality
//         90, and at any quality for 4:2:0 frames; otherwise 4:4:4. Alpha is dropped. Sides are at
//         most 65,500 pixels.
//         PNG: grey of 8 and 16 bits, RGB, and RGB with alpha for ARGB8888 and BGRA8888, all exact.
//         BMP: grey and RGB, exact; alpha is dropped.
//         4:2:0 frames become RGB for PNG and BMP. Gray16 is refused for JPEG and BMP.
// Resize  to any size from 1 x 1, in the frame's format; a new frame also for the same size. An
//         output is the mean of the inputs it covers along an axis that shrinks, and bicubic
//         (parameter -0.6, ends repeated) along one that grows, which comes after the shrinking.
//         Every channel is filtered separately, alpha like the others, and every plane of 4:2:0 is
//         a picture of its own. Positions are exact to 1/8 of an input in pictures of 16,384
//         columns or rows, and in proportion in smaller ones. Apart from that values are within 1
//         of the exact mean, and of the exact cubic except for two inputs at the borders.
// Crop    in the frame's format. Pixels have their centre at whole coordinates. A corner is rounded
//         to the nearest pixel, halves upwards: the box holds the columns floor(x1 + 0.5) ..
//         floor(x2 + 0.5), both included, as far as the picture has them, and such rows. In 4:2:0
//         it grows to whole chroma samples: to an even left column, and an odd right one or the
//         last. A box without pixels (outside, x2 < x1 after rounding, a NaN) gives a null frame in
//         its place, and one ERROR line tells of all of them. No boxes give no frames and no line.
//         With `resize` each part is then scaled as by Resize; without, width and height are not
//         used.
// CvtColor  between all formats. The same format gives a copy. Grey is full range: 0 is black, 255
//         white, and 257 times that in 16 bits (rounded back to 8 for all but Gray16).
//           4:2:0 to 4:2:0       the same samples; range and matrix are kept
//           4:2:0 to RGB, grey   by its range and matrix; chroma is the same for 2 x 2 pixels
//           RGB, grey to 4:2:0   BT.601, 16 .. 235; chroma of the mean of 2 x 2 pixels
//           RGB to grey          0.299 R + 0.587 G + 0.114 B
//         Values follow the formulas of ITU-R BT.601, BT.709 and the other matrices of H.273 that
//         weigh R, G and B, rounded to nearest and clipped. Alpha is kept between ARGB8888 and
//         BGRA8888. New alpha is 0 in ARGB8888, as CvtColorRGB2ARGB() has it, and 255 in BGRA8888.
[[nodiscard]] QXTOOLS_EXPORT std::shared_ptr<MediaProc> CreateFfmpegMediaProc();

// Installs a factory that gives this engine for device 0 and nothing for other devices, for which
// the front ends then log "create MediaProc failed". InstallMediaProcFactory(nullptr) removes it.
//
// Threads: as InstallMediaProcFactory().
QXTOOLS_EXPORT void InstallFfmpegMediaProc();

}  // namespace qx::utils::image
