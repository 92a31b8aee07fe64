// Image decode, resize, crop, colour conversion and encode on a media-processing engine.
//
// The library provides the interface and the front ends, but no engine. An application that has one
// derives from MediaProc and installs a factory for the process; until then every front end logs
// "create MediaProc failed" at ERROR and returns an empty result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "qxtools/export.h"
#include "qxtools/image_frame.h"

namespace qx::utils::image {

// File formats to encode into. The library passes the value to the engine unchanged.
enum ImageFileFormat : std::uint32_t {
  kImageFileFormatJpeg = 0,
  kImageFileFormatPng = 1,
  kImageFileFormatBmp = 2,
};

// Options for an encoder; passed to the engine unchanged.
struct EncodeParams {
  std::uint32_t quality = 0;  // 1 (smallest file) to 100 (best picture); 0 leaves it to the engine
};

// One engine instance. Override what the engine can do; the bodies here return empty results.
//
// The order of the virtual functions is part of the binary interface. Results are the caller's;
// frames are shared. The engine defines which calls may run at the same time: every front-end call
// requests an instance, but a factory may return the same one to several callers.
class QXTOOLS_EXPORT MediaProc {
 public:
  using Frame = std::shared_ptr<velkar::vision::ImageFrame>;
  using Box = velkar::vision::BBox_<float>;

  MediaProc() = default;
  MediaProc(const MediaProc&) = delete;
  MediaProc& operator=(const MediaProc&) = delete;
  virtual ~MediaProc();

  // Reserved vtable slot. The library never calls it.
  virtual void Reserved();

  // Cuts `boxes` (inclusive pixel corners) out of `frame`, each scaled to width x height when
  // `resize` is set. Returns: one frame per box; empty on failure.
  virtual std::vector<Frame> Crop(Frame frame, const std::vector<Box>& boxes, std::size_t width,
                                  std::size_t height, bool resize);

  // Returns: `frame` scaled to width x height; empty on failure.
  virtual Frame Resize(Frame frame, std::size_t width, std::size_t height);

  // Returns: `frame` converted to `format`; empty on failure.
  virtual Frame CvtColor(Frame frame, QXPixelFormat format);

  // Returns: the picture in the `size` bytes of image file at `data`; empty on failure.
  virtual Frame Decode(const unsigned char* data, std::size_t size);

  // Returns: the bytes of an image file; empty on failure.
  virtual std::vector<unsigned char> Encode(Frame frame, ImageFileFormat format,
                                            const EncodeParams& params);
};

// Returns the engine instance for a device index, or an empty pointer if there is none.
using MediaProcFactory = std::function<std::shared_ptr<MediaProc>(int device)>;

// Makes `factory` the source of engines for the whole process and replaces the previous one; an
// empty function removes it.
//
// Threads: safe at any time and on any thread, also while front ends run. The factory is called on
// the threads of the front ends, outside the library's lock and possibly on several at once; it may
// itself install another one. Calls that began earlier keep the old factory and its engines alive
// until they return, so its captures may still be in use when this function returns.
QXTOOLS_EXPORT void InstallMediaProcFactory(MediaProcFactory factory);

// Returns: what the installed factory gives for `device`; empty when none is installed.
[[nodiscard]] QXTOOLS_EXPORT std::shared_ptr<MediaProc> CreateMediaProc(int device);

// The front ends. Each one requests the engine of `device` (an index that only the factory
// interprets), calls the MediaProc operation of the same name with the other arguments, returns its
// result unchanged and releases the engine.
//
// Inputs:  frame  shared with the engine for the call; only the engine reads it, except where
//                 noted. `data` and `boxes` are borrowed until the call returns.
// Errors:  without an engine, "create MediaProc failed" at ERROR and an empty result. Failures of
//          the engine arrive as the empty result it returns; exceptions pass through.
// Threads: reentrant as far as the engine and the frames are.
[[nodiscard]] QXTOOLS_EXPORT std::shared_ptr<velkar::vision::ImageFrame> Decode(
    const unsigned char* data, std::size_t size, int device);

[[nodiscard]] QXTOOLS_EXPORT std::shared_ptr<velkar::vision::ImageFrame> Resize(
    std::shared_ptr<velkar::vision::ImageFrame> frame, std::size_t width, std::size_t height,
    int device);

// With `via_crop` set, scales through the engine's Crop instead: one box over the whole picture,
// whose size is read from `frame`, which must not be null then.
// Returns: the first frame of the engine's answer; empty when the answer is.
[[nodiscard]] QXTOOLS_EXPORT std::shared_ptr<velkar::vision::ImageFrame> Resize(
    std::shared_ptr<velkar::vision::ImageFrame> frame, std::size_t width, std::size_t height,
    bool via_crop, int device);

// Crops without scaling: width and height 0, resize false.
[[nodiscard]] QXTOOLS_EXPORT std::vector<std::shared_ptr<velkar::vision::ImageFrame>> Crop(
    std::shared_ptr<velkar::vision::ImageFrame> frame,
    const std::vector<velkar::vision::BBox_<float>>& boxes, int device);

[[nodiscard]] QXTOOLS_EXPORT std::vector<std::shared_ptr<velkar::vision::ImageFrame>> Crop(
    std::shared_ptr<velkar::vision::ImageFrame> frame,
    const std::vector<velkar::vision::BBox_<float>>& boxes, std::size_t width, std::size_t height,
    bool resize, int device);

[[nodiscard]] QXTOOLS_EXPORT std::shared_ptr<velkar::vision::ImageFrame> CvtColor(
    std::shared_ptr<velkar::vision::ImageFrame> frame, QXPixelFormat format, int device);

[[nodiscard]] QXTOOLS_EXPORT std::vector<unsigned char> Encode(
    std::shared_ptr<velkar::vision::ImageFrame> frame, ImageFileFormat format,
    const EncodeParams& params, int device);

// Encodes with a default EncodeParams.
[[nodiscard]] QXTOOLS_EXPORT std::vector<unsigned char> Encode(
    std::shared_ptr<velkar::vision::ImageFrame> frame, ImageFileFormat format, int device);

}  // namespace qx::utils::image
