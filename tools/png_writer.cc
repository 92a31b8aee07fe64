#include "tools/png_writer.h"

#include <png.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace qx::tools {

void WritePng(OutputFile& file, std::size_t width, std::size_t height, const std::uint8_t* rgb) {
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width);
  image.height = static_cast<png_uint_32>(height);
  image.format = PNG_FORMAT_RGB;
  // Written to memory first: libpng is C, through which no exception of the file may pass.
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
  std::vector<std::uint8_t> bytes(size);
  if (png_image_write_to_memory(&image, bytes.data(), &size, 0, rgb, 0, nullptr) == 0) {
    throw std::runtime_error(std::string("cannot make a PNG picture: ") + image.message);
  }
  file.Write(bytes.data(), size);
}

}  // namespace qx::tools
