// OpenCV's block and semi-global matchers, as rivals of the library's.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/stereo_scenes.h"
#include "tools/pictures/disparity_picture.h"

namespace qx::bench {

struct StereoRival {
  std::string name;
  std::function<void()> run;
  std::function<tools::DisparityImage()> result;  // of the last run
};

// Returns: matchers of a scene with the parameters that OpenCV's documentation suggests for blocks
//          of 5 x 5 pixels (the block matcher: 15 x 15); none when OpenCV was not there to build
//          with. They borrow the scene's pictures.
std::vector<StereoRival> OpenCvMatchers(const Scene& scene);

// How many threads they use. The semi-global matcher's default mode always uses one.
void SetOpenCvThreads(int threads);

}  // namespace qx::bench
