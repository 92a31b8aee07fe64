// Rectification by OpenCV.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qxtools/image_frame.h"
#include "qxtools/stereo_camera.h"

namespace qx::bench {

using FramePtr = std::shared_ptr<velkar::vision::ImageFrame>;

// Whether this program was built with OpenCV.
bool HaveOpenCv();

void SetOpenCvThreads(int threads);

// Returns: the places in the raw picture that the pixels of a rectified one show, x and y in turns.
std::vector<float> OpenCvPlaces(const utils::stereo::CameraCalibration& camera, int width,
                                int height);

// A way of remapping a grey or colour picture into memory of its own.
struct RectifyRival {
  std::string name;
  std::function<void()> run;
  std::function<const std::uint8_t*()> result;
};

// Returns: cv::remap with its fastest maps, 16-bit places and fractions of 1/32 pixel; and with the
//          maps in float.
std::vector<RectifyRival> OpenCvRemaps(const utils::stereo::CameraCalibration& camera,
                                       const FramePtr& raw);

// Returns: the picture of a file; grey, or RGB888.
// Errors:  ends the program when it cannot be read.
FramePtr ReadPicture(const std::string& path, bool colour);

}  // namespace qx::bench
