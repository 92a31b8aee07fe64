#include "tools/pictures/image_files.h"

#include <png.h>
#include <sys/uio.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qx::tools {
namespace {

std::string SizeText(int width, int height) {
  return std::to_string(width) + ' ' + std::to_string(height) + '\n';
}

template <typename T>
void WritePng(const Image<T>& picture, png_uint_32 format, OutputFile& file) {
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(picture.width);
  image.height = static_cast<png_uint_32>(picture.height);
  image.format = format;
  image.flags = PNG_IMAGE_FLAG_FAST;
  // Written to memory first: an exception must not pass through libpng, which is C.
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
  std::vector<std::uint8_t> bytes(size);
  if (png_image_write_to_memory(&image, bytes.data(), &size, 0, picture.values.data(), 0,
                                nullptr) == 0) {
    throw std::runtime_error(std::string("cannot make a PNG picture: ") + image.message);
  }
  file.Write(bytes.data(), size);
}

}  // namespace

void WritePng(const Image<Rgb>& picture, OutputFile& file) {
  WritePng(picture, PNG_FORMAT_RGB, file);
}

void WritePng(const Image<std::uint8_t>& picture, OutputFile& file) {
  WritePng(picture, PNG_FORMAT_GRAY, file);
}

void WritePng(const Image<std::uint16_t>& picture, OutputFile& file) {
  WritePng(picture, PNG_FORMAT_LINEAR_Y, file);
}

void WritePgm(const Image<std::uint16_t>& picture, OutputFile& file) {
  const std::string header = "P5\n" + SizeText(picture.width, picture.height) + "65535\n";
  std::vector<std::uint8_t> bytes(header.begin(), header.end());
  bytes.resize(header.size() + 2 * picture.values.size());
  std::uint8_t* next = bytes.data() + header.size();
  for (const std::uint16_t value : picture.values) {
    *next++ = static_cast<std::uint8_t>(value >> 8U);
    *next++ = static_cast<std::uint8_t>(value & 0xFFU);
  }
  file.Write(bytes.data(), bytes.size());
}

void WritePfm(const Image<float>& picture, OutputFile& file) {
  const std::uint16_t one = 1;
  const bool is_little_endian = *reinterpret_cast<const std::uint8_t*>(&one) == 1;
  std::string header =
      "Pf\n" + SizeText(picture.width, picture.height) + (is_little_endian ? "-1.0\n" : "1.0\n");
  std::vector<iovec> pieces = {{header.data(), header.size()}};
  const std::size_t row_bytes = picture.Offset(1) * sizeof(float);
  for (int y = picture.height - 1; y >= 0; --y) {
    pieces.push_back({const_cast<float*>(picture.Row(y)), row_bytes});  // only read
  }
  file.Write(std::move(pieces));
}

}  // namespace qx::tools
