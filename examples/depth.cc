// Measures distances with two raw pictures: depth LEFT.pgm RIGHT.pgm CALIBRATION [CALIBRATION]
//
// Prints how far away the middle of the left picture is, and writes points.xyz: a line x y z for
// each point, in the unit of the calibration.
#include <qxtools/depth.h>
#include <qxtools/stereo_matcher.h>
#include <qxtools/stereo_rectifier.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace stereo = qx::utils::stereo;
using velkar::vision::ImageFrameImpl;

// Reads a grey picture of 8 bits per pixel, without comments in its header.
static std::shared_ptr<ImageFrameImpl> ReadPgm(const char* path) {
  std::ifstream file(path, std::ios::binary);
  std::string magic;
  std::uint32_t width = 0, height = 0, largest = 0;
  file >> magic >> width >> height >> largest;
  if (!file || magic != "P5" || largest != 255) throw std::runtime_error("not an 8-bit PGM file");
  file.get();  // the end of the header
  const auto bytes = std::make_shared<std::vector<std::uint8_t>>(std::size_t{width} * height);
  file.read(reinterpret_cast<char*>(bytes->data()), static_cast<std::streamsize>(bytes->size()));
  // The last argument is kept by the frame, which borrows the bytes.
  return ImageFrameImpl::Create(kQXPixelFormatGray8, bytes->data(), height, width, 1, bytes);
}

int main(int argc, char** argv) try {
  if (argc < 4) return 2;
  const auto left = ReadPgm(argv[1]), right = ReadPgm(argv[2]);
  const auto calibration = stereo::ReadStereoCalibration({argv + 3, argv + argc});

  // Keep both for all pairs of these cameras.
  const stereo::StereoRectifier rectifier(calibration, static_cast<int>(left->Width()),
                                          static_cast<int>(left->Height()));
  stereo::StereoOptions options;
  options.disparities = 128;  // nearer things need more: focal length * baseline / nearest distance
  options.fill = false;
  stereo::StereoMatcher matcher(options);

  const stereo::RectifiedPair pair = rectifier.Rectify(left, right);
  const auto disparity = matcher.Match(pair.left, pair.right).disparity;
  rectifier.DropUncovered(*disparity);
  const stereo::DepthMap depth = stereo::ComputeDepth(disparity, rectifier.Geometry());
  const float middle = depth.Row(depth.Height() / 2)[depth.Width() / 2];
  std::printf("the middle is %.3f away\n", static_cast<double>(middle));  // nan: missing

  std::ofstream file("points.xyz");
  const auto points = stereo::ComputePoints(depth, rectifier.Geometry(), pair.left);
  for (const stereo::Point& point : points) {
    file << point.x << ' ' << point.y << ' ' << point.z << '\n';
  }
  return !points.empty() && file.flush() ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());  // for example: left.yml:7: 'M1' has 8 values, ...
  return 1;
}
