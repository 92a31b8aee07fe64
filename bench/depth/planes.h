// Rendered stereo pairs of a textured plane whose depth is known at every pixel.
#pragma once

#include "bench/stereo_scenes.h"
#include "qxtools/stereo_camera.h"

namespace qx::bench {

struct Plane {
  double distance;  // of the point ahead of the left camera, in the unit of the baseline
  double slant;     // degrees by which the plane is turned around the vertical axis
};

struct PlanePair {
  tools::FramePtr left, right;
  tools::Image<float> depth;  // of the left picture
};

// Renders both views. The texture is smooth noise with details from 3 to 24 pixels on the plane's
// middle, averaged over 3 x 3 rays per pixel; both pictures have their own sensor noise with a
// standard deviation of 2 grey levels. The same bytes for the same arguments.
PlanePair RenderPlane(const Plane& plane, const utils::stereo::StereoGeometry& geometry, int width,
                      int height);

}  // namespace qx::bench
