// Feature maps that turn the cost volume's dot product into a normalised correlation.
#pragma once

#include <memory>

#include "qxtools/image_frame.h"
#include "tools/stereo_picture.h"

namespace qx::tools {

// Values per pixel: one block of the cost volume's dot product.
constexpr int kFeatureChannels = 32;

// Cost volume byte of two neighbourhoods that are the same up to brightness and contrast. The
// vectors are rounded, which can lift a correlation of 1 by up to 2.3 %; that must not reach 128,
// because the cost volume does not saturate.
constexpr int kPerfectMatch = 124;

// Describes each pixel by the 32 grey values around it (see kNeighbours). Their mean is subtracted,
// which takes out the brightness, and the rest is divided by its root sum of squares, which takes
// out the contrast: the dot product of two such unit vectors is the correlation coefficient of the
// two neighbourhoods, 1 for the same texture and around 0 for unrelated ones.
//
// Output: height x width x 32 int8 in a frame that owns them: the unit vectors times 252, limited
//         to -127 .. 127. A neighbourhood whose contrast is lost in the camera's noise gets a
//         shorter vector, a flat one the null vector. Beyond the border the outermost pixels
//         repeat. The frame's scale fits OutputScale().
// Errors: std::runtime_error when the map would not fit a frame.
std::shared_ptr<velkar::vision::ImageFrameImpl> ComputeFeatures(const GrayPicture& picture);

// Returns: the scale of an output frame in which a correlation of 1 becomes kPerfectMatch.
float OutputScale();

}  // namespace qx::tools
