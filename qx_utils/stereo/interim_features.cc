#include "qx_utils/stereo/interim.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qx::utils::stereo {
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
std::vector<std::uint8_t> PaddedRows(const GreyView& picture, int y) {
  std::vector<std::uint8_t> rows;
  for (int dy = -kReach; dy <= kReach; ++dy) {
    const std::uint8_t* row = picture.data + static_cast<std::size_t>(std::clamp(
                                                 y + dy, 0, static_cast<int>(picture.height) - 1)) *
                                                 picture.pitch;
    rows.insert(rows.end(), kReach, row[0]);
    rows.insert(rows.end(), row, row + picture.width);
    rows.insert(rows.end(), kReach, row[picture.width - 1]);
  }
  return rows;
}

void ComputeRow(const GreyView& picture, int y, std::size_t shift, std::int8_t* features) {
  const std::vector<std::uint8_t> rows = PaddedRows(picture, y);
  const int pitch = static_cast<int>(picture.width) + 2 * kReach;
  std::array<std::size_t, kFeatureChannels> position =
      {};  // in `rows`, of the neighbours of column 0
  for (std::size_t i = 0; i < position.size(); ++i) {
    const int at = (kNeighbours[i].dy + kReach) * pitch + kNeighbours[i].dx + kReach;
    position[i] = static_cast<std::size_t>(at);
  }
  Values grey;
  std::fill_n(features, std::min(shift, picture.width) * kFeatureChannels, std::int8_t{0});
  for (std::size_t x = 0; x + shift < picture.width; ++x) {
    for (std::size_t i = 0; i < grey.size(); ++i) {
      grey[i] = rows[position[i] + x];
    }
    Normalise(grey, features + (x + shift) * kFeatureChannels);
  }
}

}  // namespace

void ComputeFeatureMap(const GreyView& picture, std::size_t shift, std::int8_t* map) {
#pragma omp parallel for schedule(static)
  for (int y = 0; y < static_cast<int>(picture.height); ++y) {
    ComputeRow(picture, y, shift,
               map + static_cast<std::size_t>(y) * picture.width * kFeatureChannels);
  }
}

}  // namespace qx::utils::stereo
