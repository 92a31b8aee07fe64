// Remaps a picture a number of times on one thread, for a program that counts instructions: the
// difference between two numbers of runs is the cost of a run.
//
// usage: remap NAME RUNS PICTURE HEIGHT WIDTH
//   NAME     loop, scalar or neon; loop is the usual one over 16-bit places and fractions
//   PICTURE  grey or colour
#include "qx_utils/stereo/kernels/remap.h"

#include <cstdlib>
#include <string>
#include <vector>

#include "qx_utils/stereo/camera/remap_table.h"

namespace {

using namespace qx::utils::stereo;  // NOLINT(google-build-using-namespace): a program of one page

std::size_t Number(const char* text) { return std::strtoul(text, nullptr, 10); }

struct Place {
  std::int16_t x, y;
  std::uint8_t fx, fy;
};

// A picture that is turned by a degree, enlarged and bent a little; all of it is covered.
PicturePoint PlaceOf(std::size_t column, std::size_t row, const PictureSize& size) {
  const double x = static_cast<double>(column) / static_cast<double>(size.width) - 0.5;
  const double y = static_cast<double>(row) / static_cast<double>(size.height) - 0.5;
  const double zoom = 0.9 - 0.1 * (x * x + y * y);
  return {(zoom * x - 0.02 * y + 0.5) * static_cast<double>(size.width),
          (zoom * y + 0.01 * x + 0.5) * static_cast<double>(size.height)};
}

template <std::size_t kChannels>
__attribute__((noinline)) void Loop(const Place* places, const GreyView& source,
                                    std::uint8_t* result) {
  for (std::size_t i = 0; i < source.width * source.height; ++i) {
    const auto [x, y, fx, fy] = places[i];
    const std::uint8_t* const pixel = source.data + static_cast<std::size_t>(y) * source.pitch +
                                      static_cast<std::size_t>(x) * kChannels;
    for (std::size_t channel = 0; channel < kChannels; ++channel) {
      const std::uint8_t* const from = pixel + channel;
      const int above = from[0] * (128 - fx) + from[kChannels] * fx;
      const int below = from[source.pitch] * (128 - fx) + from[source.pitch + kChannels] * fx;
      *result++ = static_cast<std::uint8_t>((above * (128 - fy) + below * fy + 8192) >> 14);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  const std::string name = argv[1];
  const bool colour = std::string(argv[3]) == "colour";
  const std::size_t channels = colour ? 3 : 1;
  const PictureSize size{Number(argv[5]), Number(argv[4])};
  const std::vector<std::uint8_t> raw(size.width * size.height * channels, 77);
  std::vector<std::uint8_t> result(raw.size());
  const GreyView source{raw.data(), size.width * channels, size.width, size.height};
  std::vector<Place> places;
  const RemapTable table(size, size, [&](std::size_t x, std::size_t y) {
    const PicturePoint place = PlaceOf(x, y, size);
    const auto u = static_cast<int>(place.x * 128), v = static_cast<int>(place.y * 128);
    places.push_back({static_cast<std::int16_t>(u >> 7), static_cast<std::int16_t>(v >> 7),
                      static_cast<std::uint8_t>(u & 127), static_cast<std::uint8_t>(v & 127)});
    return place;
  });
  const RemapKernel& kernel = name == "neon" ? kRemapNeon : kRemapScalar;
  for (std::size_t run = 0; run < Number(argv[2]); ++run) {
    if (name == "loop") {
      (colour ? Loop<3> : Loop<1>)(places.data(), source, result.data());
    } else {
      (colour ? kernel.colour : kernel.grey)(table.View(), source, 0, size.height, result.data());
    }
  }
  return 0;
}
