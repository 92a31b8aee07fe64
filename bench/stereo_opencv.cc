#include "bench/stereo_opencv.h"

#ifdef QXTOOLS_HAVE_OPENCV

#include <opencv2/calib3d.hpp>
#include <opencv2/core/utility.hpp>

#include "qxtools/stereo_matcher.h"
#include "tools/media/stereo_source.h"

namespace qx::bench {
namespace {

constexpr int kBlock = 5;
constexpr int kFirstPenalty = 8 * kBlock * kBlock;
constexpr int kSecondPenalty = 32 * kBlock * kBlock;
constexpr int kUniqueness = 10;   // per cent
constexpr int kSpeckle = 100;     // pixels
constexpr int kSpeckleRange = 1;  // pixels of disparity
constexpr int kDifference = 1;    // between left and right
constexpr int kLargeBlock = 15;   // of the block matcher
constexpr int kUnits = 16;        // of a disparity in its results

cv::Mat MatOf(const tools::FramePtr& picture) {
  const tools::LumaView luma(picture);
  return {static_cast<int>(luma.height), static_cast<int>(luma.width), CV_8UC1,
          const_cast<std::uint8_t*>(luma.data), luma.pitch};
}

tools::DisparityImage ImageOf(const cv::Mat& disparity) {
  tools::DisparityImage image(disparity.cols, disparity.rows, qx::utils::stereo::kMissingDisparity);
  for (int y = 0; y < image.height; ++y) {
    for (int x = 0; x < image.width; ++x) {
      const int value = disparity.at<std::int16_t>(y, x);
      if (value < 0) continue;
      image.Row(y)[x] =
          static_cast<std::uint16_t>(value * qx::utils::stereo::kDisparityUnits / kUnits);
    }
  }
  return image;
}

StereoRival RivalOf(const std::string& name, const cv::Ptr<cv::StereoMatcher>& matcher,
                    const Scene& scene) {
  matcher->setSpeckleWindowSize(kSpeckle);
  matcher->setSpeckleRange(kSpeckleRange);
  matcher->setDisp12MaxDiff(kDifference);
  const auto disparity = std::make_shared<cv::Mat>();
  const cv::Mat left = MatOf(scene.left), right = MatOf(scene.right);
  return {name, [=] { matcher->compute(left, right, *disparity); },
          [=] { return ImageOf(*disparity); }};
}

}  // namespace

std::vector<StereoRival> OpenCvMatchers(const Scene& scene) {
  const int disparities = (scene.disparities + 15) / 16 * 16;  // they take multiples of 16 only
  std::vector<StereoRival> rivals;
  const struct {
    const char* name;
    int mode;
  } modes[] = {{"SGBM", cv::StereoSGBM::MODE_SGBM},
               {"SGBM 3-way", cv::StereoSGBM::MODE_SGBM_3WAY},
               {"SGBM HH4", cv::StereoSGBM::MODE_HH4}};
  for (const auto& [name, mode] : modes) {
    const auto matcher = cv::StereoSGBM::create(0, disparities, kBlock, kFirstPenalty,
                                                kSecondPenalty, 0, 0, kUniqueness, 0, 0, mode);
    rivals.push_back(RivalOf(name, matcher, scene));
  }
  const auto blocks = cv::StereoBM::create(disparities, kLargeBlock);
  blocks->setUniquenessRatio(kUniqueness);
  rivals.push_back(RivalOf("BM", blocks, scene));
  return rivals;
}

void SetOpenCvThreads(int threads) { cv::setNumThreads(threads); }

}  // namespace qx::bench

#else

namespace qx::bench {

std::vector<StereoRival> OpenCvMatchers(const Scene& /*scene*/) { return {}; }
void SetOpenCvThreads(int /*threads*/) {}

}  // namespace qx::bench

#endif
