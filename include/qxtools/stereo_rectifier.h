// Rectification: raw pictures of two calibrated cameras become pictures in which the same point is
// in the same row, without lens distortion, as StereoMatcher needs them.
//
//   using namespace qx::utils;
//   const stereo::StereoRectifier rectifier(stereo::ReadStereoCalibration({"calibration.yml"}),
//                                           640, 480);
//   const stereo::RectifiedPair pair = rectifier.Rectify(left, right);
//   const auto result = matcher.Match(pair.left, pair.right);
//   rectifier.DropUncovered(*result.disparity);
//
// A pixel of a rectified picture shows what the raw picture has where the camera sees the same ray:
// the value between the four pixels around that place, interpolated linearly. Places are computed
// once, in double precision, and kept in multiples of 1/128 pixel, at most 0.0098 pixel away.
//
// A rectified pixel is covered when its place is on the raw picture: x within 0 .. width - 1 and y
// within 0 .. height - 1, after rounding. Pixels that are less than one pixel away from that are
// not covered and fade to black, as if the raw picture continued with zeros; all other pixels that
// are not covered are 0. What lies behind the camera is not covered.
//
// Errors:  std::invalid_argument, with a text that names what is wrong, for frames that are null,
//          empty, of the wrong size or format, or too small for their own shape; std::length_error
//          when a result does not fit the 32 bits of DataSize(); std::bad_alloc.
// Threads: every function is reentrant, and any number of threads may use one rectifier at once.
//          Rows are divided among the caller's OpenMP threads.
// Exact:   the same bytes for every instruction set and any number of threads.
#pragma once

#include <memory>

#include "qxtools/export.h"
#include "qxtools/image_frame.h"
#include "qxtools/stereo_camera.h"

namespace qx::utils::stereo {

// Frames of the raw pictures' size that own their bytes.
struct RectifiedPair {
  std::shared_ptr<velkar::vision::ImageFrameImpl> left;
  std::shared_ptr<velkar::vision::ImageFrameImpl> right;
};

struct RectifierState;

class QXTOOLS_EXPORT StereoRectifier {
 public:
  // Computes the maps of both cameras.
  //
  // Inputs:  calibration    transforms that it lacks are computed, see ComputeRectification().
  //          width, height  of the raw pictures and of the rectified ones: 1 .. 32767.
  // Errors:  std::invalid_argument when the calibration is for pictures of another size, holds NaN
  //          or infinity, or a focal length that is not positive, and what ComputeRectification()
  //          and GeometryOf() report.
  // Memory:  9 bytes a pixel; 8 more where lenses turn or shrink the picture strongly.
  StereoRectifier(const StereoCalibration& calibration, int width, int height);
  ~StereoRectifier();
  StereoRectifier(StereoRectifier&& other) noexcept;
  StereoRectifier& operator=(StereoRectifier&& other) noexcept;

  // Rectifies a pair.
  //
  // Inputs:  left, right  of the rectifier's size, borrowed for the call: kQXPixelFormatGray8, or a
  //                       4:2:0 format, whose luma is read in place, which become
  //                       kQXPixelFormatGray8; or kQXPixelFormatRGB888, which stays that. The pitch
  //                       of a decoder's frame comes from LayoutOf(); rows of other frames follow
  //                       without gaps.
  // Returns: the rectified pictures.
  // Errors:  as at the top.
  [[nodiscard]] RectifiedPair Rectify(
      const std::shared_ptr<velkar::vision::ImageFrame>& left,
      const std::shared_ptr<velkar::vision::ImageFrame>& right) const;

  // The same for one picture.
  [[nodiscard]] std::shared_ptr<velkar::vision::ImageFrameImpl> RectifyLeft(
      const std::shared_ptr<velkar::vision::ImageFrame>& left) const;
  [[nodiscard]] std::shared_ptr<velkar::vision::ImageFrameImpl> RectifyRight(
      const std::shared_ptr<velkar::vision::ImageFrame>& right) const;

  // Sets the pixels of a disparity map to kMissingDisparity that are not covered in the left
  // picture, or whose match, at the nearest column, is not covered in the right one.
  //
  // Inputs:  disparity  of the rectifier's size, as StereoMatcher returns it.
  // Errors:  as at the top; the map is unchanged then.
  void DropUncovered(velkar::vision::ImageFrameImpl& disparity) const;

  // Returns: what turns disparities of the rectified pictures into depth.
  [[nodiscard]] const StereoGeometry& Geometry() const;

  // Returns: the calibration, with the transforms that are in use.
  [[nodiscard]] const StereoCalibration& Calibration() const;

 private:
  std::unique_ptr<RectifierState> state_;
};

}  // namespace qx::utils::stereo
