#include "bench/stereo_scenes.h"

#include <algorithm>
#include <filesystem>
#include <regex>
#include <stdexcept>

#include "tools/media/stereo_source.h"

namespace qx::bench {
namespace {

namespace fs = std::filesystem;

fs::path FileIn(const fs::path& folder, const std::string& pattern) {
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (std::regex_match(name, std::regex(pattern))) return entry.path();
  }
  throw std::runtime_error("no file " + pattern + " in " + folder.string());
}

tools::FramePtr ReadPicture(const fs::path& file) {
  return tools::OpenPictureSource(file.string())->Next();
}

// The grey value at (x, y) of a picture enlarged `factor` times, between its pixels.
std::uint8_t Sample(const tools::LumaView& luma, std::uint32_t x, std::uint32_t y,
                    std::uint32_t factor) {
  const std::uint32_t right = std::min(x / factor + 1, luma.width - 1);
  const std::uint32_t below = std::min(y / factor + 1, luma.height - 1);
  const std::uint8_t* const rows[] = {luma.Row(y / factor), luma.Row(below)};
  const std::uint32_t u = x % factor, v = y % factor;
  const auto across = [&](const std::uint8_t* row) {
    return (factor - u) * row[x / factor] + u * row[right];
  };
  const std::uint32_t sum = (factor - v) * across(rows[0]) + v * across(rows[1]);
  return static_cast<std::uint8_t>(sum / (factor * factor));
}

tools::FramePtr Cut(const tools::FramePtr& picture, std::uint32_t width, std::uint32_t height) {
  const tools::LumaView luma(picture);
  const std::uint32_t factor =
      std::max((width + luma.width - 1) / luma.width, (height + luma.height - 1) / luma.height);
  const std::uint32_t left = (luma.width * factor - width) / 2;
  const std::uint32_t top = (luma.height * factor - height) / 2;
  const auto bytes = std::make_shared<std::vector<std::uint8_t>>(std::size_t{width} * height);
  for (std::uint32_t y = 0; y < height; ++y) {
    for (std::uint32_t x = 0; x < width; ++x) {
      (*bytes)[std::size_t{y} * width + x] = Sample(luma, left + x, top + y, factor);
    }
  }
  return velkar::vision::ImageFrameImpl::Create(kQXPixelFormatGray8, bytes->data(), height, width,
                                                1, bytes);
}

}  // namespace

Scene LoadScene(const std::string& spec) {
  std::smatch parts;
  if (!std::regex_match(spec, parts, std::regex("(.+):([0-9]+):([0-9.]+)"))) {
    throw std::runtime_error("'" + spec + "' is not FOLDER:DISPARITIES:SCALE");
  }
  const fs::path folder = parts[1].str();
  Scene scene;
  scene.name = (folder / "").parent_path().filename().string();
  scene.left = ReadPicture(FileIn(folder, "left.*"));
  scene.right = ReadPicture(FileIn(folder, "right.*"));
  scene.disparities = std::stoi(parts[2]);
  scene.truth_scale = std::stod(parts[3]);
  const tools::FramePtr truth = ReadPicture(FileIn(folder, "disp(?!.*right).*"));
  const tools::LumaView luma(truth);
  scene.truth = {static_cast<int>(luma.width), static_cast<int>(luma.height)};
  for (std::uint32_t y = 0; y < luma.height; ++y) {
    std::copy_n(luma.Row(y), luma.width, scene.truth.Row(static_cast<int>(y)));
  }
  return scene;
}

Scene CutScene(const Scene& scene, int width, int height, int disparities) {
  const auto columns = static_cast<std::uint32_t>(width);
  const auto rows = static_cast<std::uint32_t>(height);
  Scene cut;
  cut.name = "part of " + scene.name;
  cut.left = Cut(scene.left, columns, rows);
  cut.right = Cut(scene.right, columns, rows);
  cut.disparities = disparities;
  return cut;
}

}  // namespace qx::bench
