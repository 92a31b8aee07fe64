// Frames: they describe every image, feature map and decoded picture that crosses the interface.
//
// A frame names a pixel format, points at a block of bytes and reports the block's size and
// geometry. It never allocates, copies, converts or frees pixels.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "qxtools/export.h"

// Format of the bytes at ImageFrame::Data(). The values are part of the binary interface.
//
// Planar and semi-planar 4:2:0 pictures hold a luma plane followed, with no gap, by chroma of half
// the width and half the height. All other formats are one plane of rows.
enum QXPixelFormat_ : std::uint32_t {
  kQXPixelFormatUnknown = 0,
  kQXPixelFormatGray8 = 1,      // 8 bits of luma per pixel
  kQXPixelFormatGray16 = 3,     // 16 bits of luma per pixel, native byte order
  kQXPixelFormatNV21 = 5,       // Y plane, then interleaved V,U
  kQXPixelFormatNV12 = 6,       // Y plane, then interleaved U,V
  kQXPixelFormatYUV420P = 7,    // Y plane, U plane, V plane
  kQXPixelFormatRGB888 = 12,    // bytes R, G, B
  kQXPixelFormatBGR888 = 13,    // bytes B, G, R
  kQXPixelFormatARGB8888 = 14,  // bytes A, R, G, B
  kQXPixelFormatBGRA8888 = 15,  // bytes B, G, R, A
  kQXPixelFormatUint8 = 17,     // 8-bit feature map or tensor, channels interleaved
};
using QXPixelFormat = QXPixelFormat_;

namespace velkar::vision {

// The base of all frames; a plain ImageFrame is a valid, empty one.
//
// Derive from it to hand your own storage to the library. Virtual slots and data members are a
// binary interface: their order never changes. The Aux accessors belong to the wider vision stack;
// they are kept for the binary layout of earlier releases. This library never calls them, and its
// own frames return the defaults.
//
// Threads: no lock. Any number of threads may call the accessors at once; CostVolume() does.
class QXTOOLS_EXPORT ImageFrame {
 public:
  ImageFrame() = default;
  ImageFrame(const ImageFrame&) = default;
  ImageFrame& operator=(const ImageFrame&) = default;
  // Frees `name`, never the pixels.
  virtual ~ImageFrame();

  // Reserved slot, returns 0.
  virtual std::uint64_t Aux64A() const;
  // Reserved slot, returns -1.
  virtual std::int64_t Aux64B() const;
  // Reserved slot, returns -1.
  virtual std::int32_t Aux32A() const;
  // First byte of the pixels; null for an empty frame. The frame does not own them.
  virtual std::uint8_t* Data() const;
  // Owner of the memory behind Data(), or empty if something else keeps it alive.
  virtual std::shared_ptr<void> Holder() const;
  // Reserved slot, returns 0.
  virtual std::uint64_t Aux64C() const;
  // Reserved slot, returns 0.
  virtual std::uint64_t Aux64D() const;
  // Reserved slot, returns 0.
  virtual std::uint64_t Aux64E() const;
  // Number of bytes at Data().
  virtual std::uint32_t DataSize() const;
  // Reserved slot, returns 0.
  virtual std::uint32_t Aux32B() const;
  // Number of columns (pixels per row).
  virtual std::uint32_t Width() const;
  // Number of rows.
  virtual std::uint32_t Height() const;
  // Reserved slot, returns 0.
  virtual std::uint32_t Aux32C() const;
  // Interleaved values per pixel. In a feature map, value c of the pixel at (row y, column x) is
  // byte (y * Width() + x) * Channel() + c.
  virtual std::uint32_t Channel() const;
  // Reserved slot, returns 0.
  virtual std::uint32_t Aux32D() const;

  QXPixelFormat pixel_format = kQXPixelFormatUnknown;
  std::uint64_t reserved0 = 0;  // neither is used by the library
  std::uint64_t reserved1 = 0;
  std::string name;    // free-form label; the library never reads it
  float scale = 1.0F;  // quantisation scale of the values; the cost volumes multiply these
};

// The frame with a field for each attribute.
class QXTOOLS_EXPORT ImageFrameImpl : public ImageFrame {
 public:
  ImageFrameImpl() = default;
  ImageFrameImpl(const ImageFrameImpl&) = default;
  ImageFrameImpl& operator=(const ImageFrameImpl&) = default;
  ~ImageFrameImpl() override;

  // Describes memory that the caller owns.
  //
  // Inputs:  data      height x width x channels values, row by row, channels of a pixel adjacent;
  //                    one byte a value, two for kQXPixelFormatGray16. For the 4:2:0 formats
  //                    height x width x 3 / 2 bytes, height and width even and channels 1.
  //          channels  as Channel() reports them: 1 for grey pictures, 3 or 4 for coloured ones.
  //          holder    optional owner of `data`, released with the frame. Without one the caller
  //                    must keep `data` alive as long as the frame.
  // Returns: the frame; empty when the size in bytes does not fit the 32 bits of DataSize(), when a
  //          4:2:0 picture has an odd height or width or other than 1 channel, or when `data` is
  //          null although the size is not zero.
  [[nodiscard]] static std::shared_ptr<ImageFrameImpl> Create(
      QXPixelFormat format, std::uint8_t* data, std::uint32_t height, std::uint32_t width,
      std::uint32_t channels, std::shared_ptr<void> holder = nullptr);

  std::uint64_t Aux64A() const override;
  std::uint8_t* Data() const override;
  std::shared_ptr<void> Holder() const override;
  std::uint64_t Aux64C() const override;
  std::uint64_t Aux64D() const override;
  std::uint64_t Aux64E() const override;
  std::uint32_t DataSize() const override;
  std::uint32_t Aux32B() const override;
  std::uint32_t Width() const override;
  std::uint32_t Height() const override;
  std::uint32_t Aux32C() const override;
  std::uint32_t Channel() const override;
  std::uint32_t Aux32D() const override;

 private:
  friend struct ImageFrameFields;  // the library's producers fill frames through it

  std::uint64_t aux64_a_ = 0;
  std::uint8_t* data_ = nullptr;
  std::uint64_t aux64_c_ = 0;
  std::uint64_t aux64_d_ = 0;
  std::uint64_t aux64_e_ = 0;
  std::uint32_t data_size_ = 0;
  std::uint32_t aux32_b_ = 0;
  std::uint32_t width_ = 0;
  std::uint32_t height_ = 0;
  std::uint32_t aux32_c_ = 0;
  std::uint32_t channel_ = 0;
  std::uint32_t aux32_d_ = 0;
  std::shared_ptr<void> holder_;
};

// An axis-aligned rectangle in pixel coordinates; all four corners belong to it.
template <typename T>
struct BBox_ {
  template <typename X1, typename Y1, typename X2, typename Y2>
  BBox_(X1 left, Y1 top, X2 right, Y2 bottom, std::string label = "")
      : x1(static_cast<T>(left)),
        y1(static_cast<T>(top)),
        x2(static_cast<T>(right)),
        y2(static_cast<T>(bottom)),
        name(std::move(label)) {}

  T x1;  // left column
  T y1;  // top row
  T x2;  // right column, inclusive
  T y2;  // bottom row, inclusive
  T attr_a = T();
  T attr_b = T();
  std::string name;
};

}  // namespace velkar::vision
