// Measures chessboards with the library: how far neighbouring corners are apart, from raw pictures
// to points. OpenCV finds the corners and calibrates, the library does everything in between.
//
// usage: board_depth measure CALIBRATION[,MORE] LEFT RIGHT [LEFT RIGHT]...
//        board_depth calibrate FILE LEFT RIGHT [LEFT RIGHT]...
//
// The board has 9 x 6 inner corners (QXTOOLS_BOARD=7x5 in the environment for another one), its
// squares measure 1 in the calibration's unit, and it is between 8 and 18 squares away
// (QXTOOLS_DISTANCES=10:40). Disparities of other distances are not searched: a chessboard matches
// itself one square further, too.
//
// For each pair `measure` prints the distances between neighbours by the library's depths, beside
// the spread that a noise of 0.25 pixel in the disparity explains; the same for corners that OpenCV
// found in both rectified pictures, which is what the calibration allows; and how far the
// library's disparities are from those of the corners. The exit status is 1 if a mean is off by
// more than 1 per cent, a spread is larger than explained, or a tenth of the corners has no depth.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/depth/chessboard.h"
#include "bench/depth/spacing.h"
#include "qxtools/depth.h"
#include "qxtools/stereo_matcher.h"
#include "qxtools/stereo_rectifier.h"
#include "tools/media/ffmpeg.h"
#include "tools/media/stereo_source.h"

namespace qx::bench {
namespace {

namespace stereo = utils::stereo;

constexpr double kNoise = 0.25;  // pixels of disparity
constexpr double kAllowedMeanError = 0.01;

struct Settings {
  cv::Size board{9, 6};
  int nearest = 8;
  int farthest = 18;
};

// Reads two numbers from the environment.
void ReadNumbers(const char* variable, const char* pattern, int& first, int& second) {
  const char* const text = std::getenv(variable);
  if (text == nullptr) return;
  std::cmatch numbers;
  if (!std::regex_match(text, numbers, std::regex(pattern))) {
    throw std::runtime_error(std::string(variable) + " is '" + text + "'");
  }
  first = std::stoi(numbers[1]);
  second = std::stoi(numbers[2]);
}

Settings ReadSettings() {
  Settings settings;
  ReadNumbers("QXTOOLS_BOARD", "([0-9]{1,3})x([0-9]{1,3})", settings.board.width,
              settings.board.height);
  ReadNumbers("QXTOOLS_DISTANCES", "([1-9][0-9]{0,3}):([1-9][0-9]{0,3})", settings.nearest,
              settings.farthest);
  return settings;
}

std::vector<RawPair> ReadPairs(const std::vector<std::string>& files) {
  if (files.empty() || files.size() % 2 != 0) throw std::runtime_error("pictures come in pairs");
  std::vector<RawPair> pairs;
  for (std::size_t i = 0; i < files.size(); i += 2) {
    const std::string name = files[i].substr(files[i].find_last_of('/') + 1);
    pairs.push_back({name, tools::OpenPictureSource(files[i])->Next(),
                     tools::OpenPictureSource(files[i + 1])->Next()});
  }
  return pairs;
}

// Between the four pixels around (x, y); NaN when one of them is missing or outside.
double DepthAt(const stereo::DepthMap& depth, double x, double y) {
  const double column = std::floor(x), row = std::floor(y);
  if (column < 0 || row < 0 || column + 1 >= depth.Width() || row + 1 >= depth.Height()) return NAN;
  const auto i = static_cast<std::uint32_t>(column), j = static_cast<std::uint32_t>(row);
  const auto along = [&](const float* values) {
    return double{values[i]} + (x - column) * (double{values[i + 1]} - double{values[i]});
  };
  const double upper = along(depth.Row(j)), lower = along(depth.Row(j + 1));
  return upper + (y - row) * (lower - upper);
}

double DisparityAt(double depth, const stereo::StereoGeometry& geometry) {
  return geometry.focal_length * geometry.baseline / depth + geometry.center_x -
         geometry.center_x_right;
}

struct Statistics {
  double sum = 0, squares = 0;
  int count = 0;

  void Add(double value) {
    if (std::isnan(value)) return;
    sum += value;
    squares += value * value;
    ++count;
  }
  double Mean() const { return sum / count; }
  double Spread() const { return std::sqrt(squares / count - Mean() * Mean()); }
};

class Measurement {
 public:
  Measurement(const stereo::StereoCalibration& calibration, const RawPair& pair,
              const Settings& settings)
      : rectifier_(calibration, static_cast<int>(pair.left->Width()),
                   static_cast<int>(pair.left->Height())),
        settings_(settings) {
    const double first = DisparityAt(settings.farthest, rectifier_.Geometry());
    const double last = DisparityAt(settings.nearest, rectifier_.Geometry());
    stereo::StereoOptions options;
    options.first_disparity = std::max(0, static_cast<int>(first));
    options.disparities =
        std::min(static_cast<int>(last) + 2, stereo::kMaxDisparities) - options.first_disparity;
    options.fill = false;
    matcher_ = std::make_unique<stereo::StereoMatcher>(options);
  }

  // Prints a row. Returns: whether the pair is as good as it should be.
  bool Measure(const RawPair& pair) {
    const stereo::RectifiedPair rectified = rectifier_.Rectify(pair.left, pair.right);
    const auto left = FindCorners(rectified.left, settings_.board);
    const auto right = FindCorners(rectified.right, settings_.board);
    if (!left || !right) {
      std::printf("| %s | OpenCV does not find the board |\n", pair.name.c_str());
      return false;
    }
    const auto disparity = matcher_->Match(rectified.left, rectified.right).disparity;
    rectifier_.DropUncovered(*disparity);
    const stereo::StereoGeometry& geometry = rectifier_.Geometry();
    const stereo::DepthMap depth = stereo::ComputeDepth(disparity, geometry);
    return Report(pair.name, Look(depth, *left), Triangulate(*left, *right));
  }

 private:
  static std::vector<Corner> Look(const stereo::DepthMap& depth,
                                  const std::vector<cv::Point2f>& found) {
    std::vector<Corner> corners;
    corners.reserve(found.size());
    for (const auto& at : found) corners.push_back({at.x, at.y, DepthAt(depth, at.x, at.y)});
    return corners;
  }

  std::vector<Corner> Triangulate(const std::vector<cv::Point2f>& left,
                                  const std::vector<cv::Point2f>& right) const {
    const stereo::StereoGeometry& geometry = rectifier_.Geometry();
    std::vector<Corner> corners;
    for (std::size_t i = 0; i < left.size(); ++i) {
      const double disparity =
          double{left[i].x} - double{right[i].x} - (geometry.center_x - geometry.center_x_right);
      corners.push_back(
          {left[i].x, left[i].y, geometry.focal_length * geometry.baseline / disparity});
    }
    return corners;
  }

  bool Report(const std::string& name, const std::vector<Corner>& ours,
              const std::vector<Corner>& reference) const {
    const stereo::StereoGeometry& geometry = rectifier_.Geometry();
    const auto columns = static_cast<std::size_t>(settings_.board.width);
    const Spacing spacing = MeasureSpacing(ours, columns, geometry);
    const Spacing possible = MeasureSpacing(reference, columns, geometry);
    const double explained = ExplainedSpread(reference, columns, geometry, kNoise);
    Statistics distance, disparity;
    for (std::size_t i = 0; i < ours.size(); ++i) {
      distance.Add(reference[i].depth);
      disparity.Add(DisparityAt(ours[i].depth, geometry) -
                    DisparityAt(reference[i].depth, geometry));
    }
    const bool good = spacing.missing * 10 <= static_cast<int>(ours.size()) &&
                      std::abs(spacing.mean - 1) <= kAllowedMeanError &&
                      spacing.spread <= explained;
    std::printf("| %s | %.1f | %d | %.4f | %.4f | %.4f | %.4f | %.4f | %+.3f | %.3f | %s |\n",
                name.c_str(), distance.Mean(), spacing.missing, spacing.mean, spacing.spread,
                explained, possible.mean, possible.spread, disparity.Mean(), disparity.Spread(),
                good ? "yes" : "NO");
    return good;
  }

  stereo::StereoRectifier rectifier_;
  std::unique_ptr<stereo::StereoMatcher> matcher_;
  Settings settings_;
};

std::vector<std::string> Split(const std::string& list) {
  const std::regex comma(",");
  return {std::sregex_token_iterator(list.begin(), list.end(), comma, -1), {}};
}

int MeasureAll(const std::string& calibration, const std::vector<RawPair>& pairs) {
  const Settings settings = ReadSettings();
  Measurement measurement(stereo::ReadStereoCalibration(Split(calibration)), pairs.front(),
                          settings);
  std::printf(
      "|  |  |  | by the library's depths |  |  | by OpenCV's corners |  | disparity less that of "
      "the corners |  |  |\n"
      "|---|---|---|---|---|---|---|---|---|---|---|\n"
      "| left picture | distance | corners missing | mean | spread | explained by 0.25 pixel | "
      "mean "
      "| spread | mean | spread | good |\n");
  std::size_t good = 0;
  for (const RawPair& pair : pairs) good += measurement.Measure(pair) ? 1 : 0;
  std::printf("\n%zu of %zu pairs: mean within 1 %%, spread within the explained one\n", good,
              pairs.size());
  return good == pairs.size() ? 0 : 1;
}

int Main(const std::vector<std::string>& arguments) {
  if (arguments.size() < 4 || (arguments[0] != "measure" && arguments[0] != "calibrate")) {
    std::fprintf(stderr, "usage: board_depth measure|calibrate FILE LEFT RIGHT...\n");
    return 2;
  }
  const auto pairs = ReadPairs({arguments.begin() + 2, arguments.end()});
  if (arguments[0] == "measure") return MeasureAll(arguments[1], pairs);
  const double error = Calibrate(pairs, ReadSettings().board, arguments[1]);
  std::printf("%s: calibrated with %zu pairs, reprojection error %.3f pixels\n",
              arguments[1].c_str(), pairs.size(), error);
  return 0;
}

}  // namespace
}  // namespace qx::bench

int main(int argc, char** argv) {
  qx::tools::HideFfmpegLog();
  try {
    return qx::bench::Main({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "board_depth: %s\n", error.what());
    return 1;
  }
}
