// Rectification of the pairs of a run.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "qxtools/stereo_rectifier.h"
#include "tools/media/stereo_source.h"

namespace qx::tools {

class PairRectifier {
 public:
  // Inputs: files  of the calibration, as for ReadStereoCalibration().
  // Errors: std::invalid_argument that names file, line and reason.
  explicit PairRectifier(const std::vector<std::string>& files);

  // Computes the maps with the first pair; returns at once with all others.
  // Errors: std::invalid_argument when the pictures are not of the calibration's size.
  void Prepare(const PicturePair& pair);

  // The rest needs Prepare().

  // Returns: the rectified pictures, and their colours where the pair has them.
  // Errors:  std::invalid_argument when the pictures are not of the size of the first pair.
  PicturePair Rectify(const PicturePair& pair) const;

  // Sets the pixels of a disparity map to kMissingDisparity that the left camera does not see.
  void DropUnseen(velkar::vision::ImageFrameImpl& disparity) const;

  // Returns: how many they are.
  std::size_t Unseen() const { return unseen_.size(); }

  const utils::stereo::StereoRectifier& Rectifier() const { return *rectifier_; }

 private:
  utils::stereo::StereoCalibration calibration_;
  std::optional<utils::stereo::StereoRectifier> rectifier_;
  std::vector<std::size_t> unseen_;  // places in the rectified left picture
};

}  // namespace qx::tools
