// CopyImage() against a copy byte by byte: it copies what both pictures have in common, or refuses
// and writes nothing.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "fuzz/require.h"
#include "qxtools/image_copy.h"

namespace qx::fuzzing {

struct Picture {
  std::size_t pitch = 0;
  std::size_t rows = 0;
  bool is_null = false;

  // The rows of NV12 and NV21 are followed by half as many of chroma.
  std::size_t Size(bool is_420) const { return pitch * (is_420 ? rows + rows / 2 : rows); }
};

inline bool IsOneOf(int format, std::initializer_list<int> formats) {
  return std::find(formats.begin(), formats.end(), format) != formats.end();
}

// Copies between blocks of exactly the size that the geometry asks for; the source holds `pattern`
// over and over.
inline void CheckCopyImage(const Picture& dst, const Picture& src, int format, bool own_copier,
                           const std::uint8_t* pattern, std::size_t pattern_size) {
  const bool is_420 = IsOneOf(format, {5, 6});
  std::vector<std::uint8_t> from(src.Size(is_420)), to(dst.Size(is_420), 0xA5);
  for (std::size_t i = 0; i < from.size(); ++i) from[i] = pattern[i % pattern_size];
  std::vector<std::uint8_t> expected = to;
  const std::size_t pitch = std::min(dst.pitch, src.pitch);
  std::size_t rows = std::min(dst.rows, src.rows);
  const bool copies =
      !dst.is_null && !src.is_null &&
      (is_420 ? pitch % 2 == 0 && rows % 2 == 0 : IsOneOf(format, {1, 3, 12, 13, 14, 15}));
  if (is_420) rows = rows / 2 * 3;
  for (std::size_t i = 0; copies && i < rows * pitch; ++i) {
    expected[i / pitch * dst.pitch + i % pitch] = from[i / pitch * src.pitch + i % pitch];
  }
  std::uint8_t none = 0;  // an empty vector has no address
  const auto address = [&none](const Picture& picture, std::vector<std::uint8_t>& bytes) {
    return picture.is_null ? nullptr : bytes.empty() ? &none : bytes.data();
  };
  using namespace utils::image;  // NOLINT(google-build-using-namespace)
  const auto copy = [&](auto... copier) {
    return CopyImage(address(dst, to), dst.pitch, dst.rows, address(src, from), src.pitch, src.rows,
                     static_cast<QXPixelFormat>(format), copier...);
  };
  std::size_t calls = 0;
  const auto counting = [&](void* row, std::size_t capacity, void* source, std::size_t bytes) {
    Require(capacity == dst.pitch && bytes == pitch);
    ++calls;
    MemcpyFunc(row, capacity, source, bytes);
  };
  Require((own_copier ? copy(counting) : copy()) == (copies ? 0 : -1));
  Require(to == expected);
  Require(calls == (own_copier && copies ? rows : 0));
}

}  // namespace qx::fuzzing
