// CopyImage() against a copy byte by byte, over blocks of exactly the size that the geometry asks
// for: it copies what both pictures have in common, or refuses and writes nothing.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "fuzz/require.h"
#include "qxtools/image_copy.h"

namespace {

using qx::fuzzing::Require;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kHeader = 6;

struct Picture {
  std::size_t pitch, rows;
  bool is_null;

  // The rows of NV12 and NV21 are followed by half as many of chroma.
  std::size_t Size(bool is_420) const { return pitch * (is_420 ? rows + rows / 2 : rows); }
};

bool IsOneOf(int format, std::initializer_list<int> formats) {
  return std::find(formats.begin(), formats.end(), format) != formats.end();
}

// Returns: whether there is anything to copy; `expected` gets it then.
bool Model(const Picture& dst, const Picture& src, int format, const Bytes& from, Bytes& expected) {
  const std::size_t pitch = std::min(dst.pitch, src.pitch);
  std::size_t rows = std::min(dst.rows, src.rows);
  const bool is_420 = IsOneOf(format, {5, 6});
  if (dst.is_null || src.is_null) return false;
  if (!is_420 && !IsOneOf(format, {1, 3, 12, 13, 14, 15})) return false;
  if (is_420 && (pitch % 2 != 0 || rows % 2 != 0)) return false;
  if (is_420) rows = rows / 2 * 3;
  for (std::size_t i = 0; i < rows * pitch; ++i) {
    expected[i / pitch * dst.pitch + i % pitch] = from[i / pitch * src.pitch + i % pitch];
  }
  return true;
}

}  // namespace

// Input: pitch and rows of both pictures, format, kind of call, the source's bytes over and over.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace image = qx::utils::image;
  if (size <= kHeader) return 0;
  const Picture dst = {data[0] % 80U, data[1] % 20U, data[5] % 16 == 1};
  const Picture src = {data[2] % 80U, data[3] % 20U, data[5] % 16 == 2};
  const int format = data[4] % 20;
  const bool is_420 = IsOneOf(format, {5, 6});
  Bytes from(src.Size(is_420));
  for (std::size_t i = 0; i < from.size(); ++i) from[i] = data[kHeader + i % (size - kHeader)];
  Bytes to(dst.Size(is_420), 0xA5);
  Bytes expected = to;
  const bool copies = Model(dst, src, format, from, expected);
  std::uint8_t none = 0;  // an empty vector has no address
  void* const dst_data = dst.is_null ? nullptr : to.empty() ? &none : to.data();
  void* const src_data = src.is_null ? nullptr : from.empty() ? &none : from.data();
  const auto pixel_format = static_cast<QXPixelFormat>(format);
  int status = 0;
  if (data[5] / 16 % 2 == 0) {
    status = image::CopyImage(dst_data, dst.pitch, dst.rows, src_data, src.pitch, src.rows,
                              pixel_format);
  } else {  // through the general path
    status =
        image::CopyImage(dst_data, dst.pitch, dst.rows, src_data, src.pitch, src.rows, pixel_format,
                         [](void* row, std::size_t capacity, void* source, std::size_t bytes) {
                           Require(bytes <= capacity);
                           image::MemcpyFunc(row, capacity, source, bytes);
                         });
  }
  Require(status == (copies ? 0 : -1));
  Require(to == expected);
  return 0;
}
