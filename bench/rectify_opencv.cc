#include "bench/rectify_opencv.h"

#include "bench/interleaved.h"

#ifdef QXTOOLS_HAVE_OPENCV

#include <opencv2/calib3d.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace qx::bench {
namespace {

using utils::stereo::CameraCalibration;

cv::Mat MatrixOf(const double* values, int rows, int columns) {
  return cv::Mat(rows, columns, CV_64F, const_cast<double*>(values)).clone();
}

// Two maps as cv::remap takes them.
struct Maps {
  cv::Mat first, second;
};

Maps MapsOf(const CameraCalibration& camera, int width, int height, int type) {
  const bool fisheye = camera.distortion_model == utils::stereo::DistortionModel::kEquidistant;
  const cv::Mat matrix = MatrixOf(camera.camera_matrix.data(), 3, 3);
  const cv::Mat distortion = MatrixOf(camera.distortion.data(), 1, fisheye ? 4 : 14);
  const cv::Mat turn = MatrixOf(camera.rectification.data(), 3, 3);
  const cv::Mat projection = MatrixOf(camera.projection.data(), 3, 4);
  const cv::Size size(width, height);
  Maps maps;
  if (fisheye) {
    cv::fisheye::initUndistortRectifyMap(matrix, distortion, turn, projection, size, type,
                                         maps.first, maps.second);
  } else {
    cv::initUndistortRectifyMap(matrix, distortion, turn, projection, size, type, maps.first,
                                maps.second);
  }
  return maps;
}

cv::Mat MatOf(const FramePtr& frame) {
  return {static_cast<int>(frame->Height()), static_cast<int>(frame->Width()),
          frame->Channel() == 3 ? CV_8UC3 : CV_8UC1, frame->Data()};
}

}  // namespace

bool HaveOpenCv() { return true; }

void SetOpenCvThreads(int threads) { cv::setNumThreads(threads); }

std::vector<float> OpenCvPlaces(const CameraCalibration& camera, int width, int height) {
  const Maps maps = MapsOf(camera, width, height, CV_32FC1);
  std::vector<float> places;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      places.push_back(maps.first.at<float>(y, x));
      places.push_back(maps.second.at<float>(y, x));
    }
  }
  return places;
}

std::vector<RectifyRival> OpenCvRemaps(const CameraCalibration& camera, const FramePtr& raw) {
  std::vector<RectifyRival> rivals;
  for (const auto& [type, name] : {std::pair(CV_16SC2, "cv::remap, fixed maps"),
                                   std::pair(CV_32FC1, "cv::remap, float maps")}) {
    const cv::Mat source = MatOf(raw);
    const Maps maps = MapsOf(camera, source.cols, source.rows, type);
    const auto result = std::make_shared<cv::Mat>(source.size(), source.type());
    // The frame is kept for the matrix, which borrows its pixels.
    rivals.push_back(
        {name,
         [=, keep = raw] { cv::remap(source, *result, maps.first, maps.second, cv::INTER_LINEAR); },
         [=] { return result->data; }});
  }
  return rivals;
}

FramePtr ReadPicture(const std::string& path, bool colour) {
  const auto picture =
      std::make_shared<cv::Mat>(cv::imread(path, colour ? cv::IMREAD_COLOR : cv::IMREAD_GRAYSCALE));
  Require(!picture->empty(), path + " cannot be read");
  if (colour) cv::cvtColor(*picture, *picture, cv::COLOR_BGR2RGB);
  return velkar::vision::ImageFrameImpl::Create(
      colour ? kQXPixelFormatRGB888 : kQXPixelFormatGray8, picture->data,
      static_cast<std::uint32_t>(picture->rows), static_cast<std::uint32_t>(picture->cols),
      colour ? 3 : 1, picture);
}

}  // namespace qx::bench

#else

namespace qx::bench {

bool HaveOpenCv() { return false; }
void SetOpenCvThreads(int /*threads*/) {}
std::vector<float> OpenCvPlaces(const utils::stereo::CameraCalibration& /*camera*/, int /*width*/,
                                int /*height*/) {
  return {};
}
std::vector<RectifyRival> OpenCvRemaps(const utils::stereo::CameraCalibration& /*camera*/,
                                       const FramePtr& /*raw*/) {
  return {};
}
FramePtr ReadPicture(const std::string& path, bool /*colour*/) {
  Require(false, path + " cannot be read without OpenCV");
  return nullptr;
}

}  // namespace qx::bench

#endif
