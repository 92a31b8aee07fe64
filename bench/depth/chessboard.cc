#include "bench/depth/chessboard.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>

#include "tools/media/stereo_source.h"

namespace qx::bench {
namespace {

constexpr int kLeastPairs = 3;
constexpr int kReach = 5;  // pixels around a corner that decide where it is
constexpr int kCriteria = cv::TermCriteria::COUNT | cv::TermCriteria::EPS;

// What calibrations take: for each pair the board's corners, and where both cameras see them.
struct Views {
  std::vector<std::vector<cv::Point3f>> board;
  std::vector<std::vector<cv::Point2f>> left, right;
};

std::vector<cv::Point3f> CornersOf(cv::Size board) {
  std::vector<cv::Point3f> corners;
  for (int y = 0; y < board.height; ++y) {
    for (int x = 0; x < board.width; ++x) {
      corners.emplace_back(static_cast<float>(x), static_cast<float>(y), 0.0F);
    }
  }
  return corners;
}

Views FindViews(const std::vector<RawPair>& pairs, cv::Size board) {
  Views views;
  for (const RawPair& pair : pairs) {
    const auto left = FindCorners(pair.left, board), right = FindCorners(pair.right, board);
    if (!left || !right) continue;
    views.board.push_back(CornersOf(board));
    views.left.push_back(*left);
    views.right.push_back(*right);
  }
  if (views.board.size() < kLeastPairs) throw std::runtime_error("too few pairs show the board");
  return views;
}

}  // namespace

cv::Mat MatOf(const tools::FramePtr& picture) {
  const tools::LumaView luma(picture);
  return {static_cast<int>(luma.height), static_cast<int>(luma.width), CV_8UC1,
          const_cast<std::uint8_t*>(luma.data), luma.pitch};
}

std::optional<std::vector<cv::Point2f>> FindCorners(const tools::FramePtr& picture,
                                                    cv::Size board) {
  const cv::Mat image = MatOf(picture);
  std::vector<cv::Point2f> corners;
  if (!cv::findChessboardCorners(image, board, corners)) return {};
  cv::cornerSubPix(image, corners, {kReach, kReach}, {-1, -1}, {kCriteria, 100, 1e-4});
  return corners;
}

double Calibrate(const std::vector<RawPair>& pairs, cv::Size board, const std::string& file) {
  const Views views = FindViews(pairs, board);
  const cv::Size size = MatOf(pairs.front().left).size();
  constexpr int kModel = cv::CALIB_FIX_ASPECT_RATIO | cv::CALIB_ZERO_TANGENT_DIST;
  cv::Mat camera[2], distortion[2], rotation, translation, essential, fundamental;
  std::vector<cv::Mat> turns, shifts;
  for (int side = 0; side < 2; ++side) {
    camera[side] = cv::Mat::eye(3, 3, CV_64F);
    cv::calibrateCamera(views.board, side == 0 ? views.left : views.right, size, camera[side],
                        distortion[side], turns, shifts, kModel);
  }
  const double error =
      cv::stereoCalibrate(views.board, views.left, views.right, camera[0], distortion[0], camera[1],
                          distortion[1], size, rotation, translation, essential, fundamental,
                          kModel | cv::CALIB_USE_INTRINSIC_GUESS, {kCriteria, 200, 1e-7});
  cv::FileStorage out(file, cv::FileStorage::WRITE);
  if (!out.isOpened()) throw std::runtime_error("cannot write " + file);
  out << "image_width" << size.width << "image_height" << size.height;
  out << "M1" << camera[0] << "D1" << distortion[0] << "M2" << camera[1] << "D2" << distortion[1];
  out << "R" << rotation << "T" << translation;
  return error;
}

}  // namespace qx::bench
