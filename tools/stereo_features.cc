#include "tools/stereo_features.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace qx::tools {
namespace {

struct Offset {
  int dx, dy;
};

// A block of 5 x 5 without its centre, and two pixels more on each side: nearly a disc, which
// follows the outlines of objects better than a square of the same area.
constexpr std::array<Offset, kFeatureChannels> kNeighbours = {{
    {-1, -3}, {1, -3},                               //
    {-2, -2}, {-1, -2}, {0, -2},  {1, -2}, {2, -2},  //
    {-3, -1}, {-2, -1}, {-1, -1}, {0, -1}, {1, -1},  //
    {2, -1},  {3, -1},  {-2, 0},  {-1, 0}, {1, 0},   //
    {2, 0},   {-3, 1},  {-2, 1},  {-1, 1}, {0, 1},   //
    {1, 1},   {2, 1},   {3, 1},                      //
    {-2, 2},  {-1, 2},  {0, 2},   {1, 2},  {2, 2},   //
    {-1, 3},  {1, 3},
}};
constexpr int kReach = 3;

// Length of a unit vector in the int8 map. A value reaches 127 when a single neighbour carries half
// of the length, which only isolated bright or dark spots do.
constexpr float kUnitLength = 252;

// Scale of each of the two maps; with OutputScale() of 1 their product is 1/16. The kernel in
// programmable logic knows the product only as a power of two, so the length above was chosen for
// 252 * 252 / 16 / 32 channels = 124.03 to be kPerfectMatch.
constexpr float kMapScale = 0.25F;

// Standard deviation of a pixel's noise, in grey levels.
constexpr float kNoise = 0.7F;

using Values = std::array<float, kFeatureChannels>;

// Writes the feature vector of one pixel from its neighbours' grey values.
void Normalise(const Values& grey, std::int8_t* feature) {
  float sum = 0;
  for (const float value : grey) sum += value;
  const float mean = sum / kFeatureChannels;
  float squares = kFeatureChannels * kNoise * kNoise;
  for (const float value : grey) squares += (value - mean) * (value - mean);
  const float factor = kUnitLength / std::sqrt(squares);
  for (std::size_t i = 0; i < grey.size(); ++i) {
    const float scaled = std::nearbyint((grey[i] - mean) * factor);
    feature[i] = static_cast<std::int8_t>(std::clamp(scaled, -127.0F, 127.0F));
  }
}

// The rows around row `y`, each with kReach pixels more at either end.
std::vector<std::uint8_t> PaddedRows(const GrayPicture& picture, int y) {
  std::vector<std::uint8_t> rows;
  for (int dy = -kReach; dy <= kReach; ++dy) {
    const std::uint8_t* row = picture.Row(std::clamp(y + dy, 0, picture.height - 1));
    rows.insert(rows.end(), kReach, row[0]);
    rows.insert(rows.end(), row, row + picture.width);
    rows.insert(rows.end(), kReach, row[picture.width - 1]);
  }
  return rows;
}

void ComputeRow(const GrayPicture& picture, int y, std::int8_t* features) {
  const std::vector<std::uint8_t> rows = PaddedRows(picture, y);
  const int pitch = picture.width + 2 * kReach;
  std::array<std::size_t, kFeatureChannels> position =
      {};  // in `rows`, of the neighbours of column 0
  for (std::size_t i = 0; i < position.size(); ++i) {
    const int at = (kNeighbours[i].dy + kReach) * pitch + kNeighbours[i].dx + kReach;
    position[i] = static_cast<std::size_t>(at);
  }
  Values grey;
  for (std::size_t x = 0; x < static_cast<std::size_t>(picture.width); ++x) {
    for (std::size_t i = 0; i < grey.size(); ++i) {
      grey[i] = rows[position[i] + x];
    }
    Normalise(grey, features + x * kFeatureChannels);
  }
}

}  // namespace

std::shared_ptr<velkar::vision::ImageFrameImpl> ComputeFeatures(const GrayPicture& picture) {
  const std::size_t row_bytes = static_cast<std::size_t>(picture.width) * kFeatureChannels;
  const auto bytes = std::make_shared<std::vector<std::uint8_t>>(
      row_bytes * static_cast<std::size_t>(picture.height));
  auto frame = velkar::vision::ImageFrameImpl::Create(
      kQXPixelFormatUint8, bytes->data(), static_cast<std::uint32_t>(picture.height),
      static_cast<std::uint32_t>(picture.width), kFeatureChannels, bytes);
  if (!frame) throw std::runtime_error("the pictures are too large for a feature map");
  frame->scale = kMapScale;
#pragma omp parallel for schedule(static)
  for (int y = 0; y < picture.height; ++y) {
    std::uint8_t* row = bytes->data() + static_cast<std::size_t>(y) * row_bytes;
    ComputeRow(picture, y, reinterpret_cast<std::int8_t*>(row));
  }
  return frame;
}

float OutputScale() { return 1.0F; }

}  // namespace qx::tools
