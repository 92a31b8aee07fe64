#include "tools/stereo_output.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <system_error>

#include "tools/output_file.h"
#include "tools/png_writer.h"
#include "tools/stereo_color.h"

namespace qx::tools {
namespace {

std::uint16_t Sample(float disparity) {
  if (disparity == kMissing) return 0;
  const long sample = std::lround(disparity * kPgmScale);
  return static_cast<std::uint16_t>(std::clamp(sample, 1L, 65535L));
}

}  // namespace

OutputFolder::~OutputFolder() {
  std::error_code is_in_use;
  for (auto folder = made_.rbegin(); folder != made_.rend(); ++folder) {
    std::filesystem::remove(*folder, is_in_use);
  }
}

void OutputFolder::Create() {
  std::filesystem::path folder;
  for (const auto& part : path_) {
    folder /= part;
    std::error_code error;
    if (std::filesystem::create_directory(folder, error)) made_.push_back(folder);
    if (error) {
      throw std::system_error(error, "cannot make the folder '" + path_.string() + "'");
    }
  }
}

void WritePgmFile(const DisparityMap& map, const std::string& path) {
  std::string bytes =
      "P5\n" + std::to_string(map.width) + " " + std::to_string(map.height) + "\n65535\n";
  bytes.reserve(bytes.size() + 2 * map.values.size());
  for (const float disparity : map.values) {
    const std::uint16_t sample = Sample(disparity);
    bytes.push_back(static_cast<char>(sample >> 8U));
    bytes.push_back(static_cast<char>(sample & 0xFFU));
  }
  OutputFile file(path);
  file.Write(bytes.data(), bytes.size());
  file.Commit();
}

void WritePngFile(const DisparityMap& map, int disparities, const std::string& path) {
  static_assert(sizeof(Rgb) == 3, "pixels are handed on as bytes");
  const RgbPicture picture = Paint(map, disparities);
  OutputFile file(path);
  WritePng(file, static_cast<std::size_t>(picture.width), static_cast<std::size_t>(picture.height),
           reinterpret_cast<const std::uint8_t*>(picture.pixels.data()));
  file.Commit();
}

}  // namespace qx::tools
