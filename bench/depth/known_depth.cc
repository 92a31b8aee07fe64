// Measures the library's depths where the true ones are known, in per cent of the distance.
//
// usage: known_depth [FOLDER:DISPARITIES:SCALE:FOCAL:BASELINE:OFFSET]...
//
// A folder holds a real pair with true disparities (see stereo_scenes.h); FOCAL is in pixels,
// BASELINE in metres, and OFFSET is what the pictures' cropping took from every disparity:
// depth = FOCAL * BASELINE / (disparity + OFFSET). Without arguments the pair in samples/ is taken.
// Pairs of Middlebury's set of 2006 have a focal length of 3740 pixels and a baseline of 160 mm in
// full size.
//
// After the real pairs come rendered planes at 1, 2 and 4 m, distances that real pairs rarely
// contain: each at five distances close to the one that is printed, so that disparities with any
// fraction take part. The last table shows, for planes without slant, how the error of a disparity
// depends on its fraction.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/depth/planes.h"
#include "bench/stereo_scenes.h"
#include "qxtools/depth.h"
#include "qxtools/stereo_matcher.h"
#include "tools/media/ffmpeg.h"

namespace qx::bench {
namespace {

namespace stereo = utils::stereo;

constexpr double kBand = 0.125;   // the width of a band of distances, as a share of its middle
constexpr double kFarOff = 0.05;  // of the distance
constexpr int kWidth = 640;       // of rendered pictures
constexpr int kHeight = 480;
constexpr int kRenderedDisparities = 128;

struct DepthErrors {
  std::vector<double> per_cent;  // absolute, of pixels that have a depth
  std::size_t known = 0;         // pixels whose true depth is in the band
};

struct Band {
  double nearest, farthest;
};

Band BandAround(double distance) {
  return {distance * (1 - kBand / 2), distance * (1 + kBand / 2)};
}

void AddErrors(const Band& band, const stereo::DepthMap& depth, const tools::Image<float>& truth,
               DepthErrors& errors) {
  for (int y = 0; y < truth.height; ++y) {
    const float* const measured = depth.Row(static_cast<std::uint32_t>(y));
    for (int x = 0; x < truth.width; ++x) {
      const double expected = double{truth.Row(y)[x]};
      if (!(expected >= band.nearest && expected < band.farthest)) continue;
      ++errors.known;
      if (!std::isfinite(measured[x])) continue;
      errors.per_cent.push_back(std::abs(double{measured[x]} - expected) / expected * 100);
    }
  }
}

double Quantile(std::vector<double> values, double share) {
  const auto at =
      values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

// `pixel` is the change of depth, in per cent, that one pixel of disparity makes in the band.
void PrintRow(const std::string& name, const Band& band, const DepthErrors& errors, double pixel) {
  std::printf("| %s | %.2f .. %.2f m |", name.c_str(), band.nearest, band.farthest);
  if (errors.per_cent.empty()) {
    std::printf(" none |  |  |  |  |\n");
    return;
  }
  const auto far_off = std::count_if(errors.per_cent.begin(), errors.per_cent.end(),
                                     [](double per_cent) { return per_cent > kFarOff * 100; });
  const auto count = static_cast<double>(errors.per_cent.size());
  std::printf(" %zu | %.1f %% | %.2f %% | %.2f %% | %.1f %% | %.2f %% |\n", errors.known,
              100 - 100 * count / static_cast<double>(errors.known), Quantile(errors.per_cent, 0.5),
              Quantile(errors.per_cent, 0.9), 100 * static_cast<double>(far_off) / count, pixel);
}

stereo::DepthMap Measure(const tools::FramePtr& left, const tools::FramePtr& right, int disparities,
                         const stereo::StereoGeometry& geometry) {
  stereo::StereoOptions options;
  options.disparities = disparities;
  options.fill = false;
  stereo::StereoMatcher matcher(options);
  return stereo::ComputeDepth(matcher.Match(left, right).disparity, geometry);
}

double PixelAt(double distance, const stereo::StereoGeometry& geometry) {
  return 100 * distance / (geometry.focal_length * geometry.baseline);
}

struct RealPair {
  Scene scene;
  stereo::StereoGeometry geometry;
};

RealPair LoadPair(const std::string& spec) {
  std::smatch parts;
  const std::string number = ":([0-9.]+)";
  if (!std::regex_match(spec, parts, std::regex("(.+)" + number + number + number))) {
    throw std::runtime_error("'" + spec +
                             "' is not FOLDER:DISPARITIES:SCALE:FOCAL:BASELINE:OFFSET");
  }
  RealPair pair{LoadScene(parts[1]), {}};
  pair.geometry.focal_length = std::stod(parts[2]);
  pair.geometry.baseline = std::stod(parts[3]);
  pair.geometry.center_x_right = std::stod(parts[4]);  // the left one is 0
  return pair;
}

// The depth of each pixel whose disparity is known; NaN otherwise.
tools::Image<float> TruthOf(const RealPair& pair) {
  const auto& grey = pair.scene.truth;
  tools::Image<float> depth(grey.width, grey.height, NAN);
  const double product = pair.geometry.focal_length * pair.geometry.baseline;
  std::transform(grey.values.begin(), grey.values.end(), depth.values.begin(), [&](auto value) {
    const double disparity = value / pair.scene.truth_scale + pair.geometry.center_x_right;
    return value == 0 ? NAN : static_cast<float>(product / disparity);
  });
  return depth;
}

void MeasureReal(const std::string& spec) {
  const RealPair pair = LoadPair(spec);
  const tools::Image<float> truth = TruthOf(pair);
  const stereo::DepthMap depth =
      Measure(pair.scene.left, pair.scene.right, pair.scene.disparities, pair.geometry);
  for (const double distance : {1.0, 1.25, 1.5, 1.75, 2.0, 4.0}) {
    const Band band = BandAround(distance);
    DepthErrors errors;
    AddErrors(band, depth, truth, errors);
    PrintRow(pair.scene.name, band, errors, PixelAt(distance, pair.geometry));
  }
}

stereo::StereoGeometry RenderedCamera() {
  return {700, (kWidth - 1) / 2.0, (kHeight - 1) / 2.0, (kWidth - 1) / 2.0, 0.12};
}

void MeasureRendered() {
  const stereo::StereoGeometry geometry = RenderedCamera();
  for (const double slant : {0.0, 30.0, 60.0}) {
    for (const double distance : {1.0, 2.0, 4.0}) {
      const Band band = BandAround(distance);
      DepthErrors errors;
      for (const double factor : {0.97, 0.983, 1.004, 1.018, 1.029}) {
        const PlanePair pair = RenderPlane({distance * factor, slant}, geometry, kWidth, kHeight);
        AddErrors(band, Measure(pair.left, pair.right, kRenderedDisparities, geometry), pair.depth,
                  errors);
      }
      const std::string name = "rendered plane, slant " + std::to_string(std::lround(slant));
      PrintRow(name, band, errors, PixelAt(distance, geometry));
    }
  }
}

// How far the disparity of a plane without slant is off, on average, by its fraction.
void MeasureFractions() {
  constexpr int kWhole = 42;
  const stereo::StereoGeometry geometry = RenderedCamera();
  const double product = geometry.focal_length * geometry.baseline;
  std::printf(
      "\n| fraction of the true disparity | mean error in pixels | spread |\n|---|---|---|\n");
  for (int tenth = 0; tenth < 10; ++tenth) {
    const double disparity = kWhole + tenth / 10.0;
    const PlanePair pair = RenderPlane({product / disparity, 0}, geometry, kWidth, kHeight);
    const stereo::DepthMap depth = Measure(pair.left, pair.right, kRenderedDisparities, geometry);
    double sum = 0, squares = 0, count = 0;
    for (int y = 0; y < kHeight; ++y) {
      const float* const row = depth.Row(static_cast<std::uint32_t>(y));
      for (int x = kRenderedDisparities; x < kWidth; ++x) {
        if (!std::isfinite(row[x])) continue;
        const double error = product / double{row[x]} - disparity;
        sum += error;
        squares += error * error;
        ++count;
      }
    }
    const double mean = sum / count;
    std::printf("| %.1f | %+.3f | %.3f |\n", tenth / 10.0, mean,
                std::sqrt(squares / count - mean * mean));
  }
}

void Main(std::vector<std::string> pairs) {
  if (pairs.empty()) pairs.push_back(QXTOOLS_SAMPLES_DIR "/aloe:112:2:1870:0.16:135");
  std::printf(
      "| scene | true depth | pixels | missing | half are off by less than | 90 %% are | more than "
      "5 %% | a pixel of disparity |\n|---|---|---|---|---|---|---|---|\n");
  for (const std::string& pair : pairs) MeasureReal(pair);
  MeasureRendered();
  MeasureFractions();
}

}  // namespace
}  // namespace qx::bench

int main(int argc, char** argv) {
  qx::tools::HideFfmpegLog();
  try {
    qx::bench::Main({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "known_depth: %s\n", error.what());
    return 1;
  }
}
