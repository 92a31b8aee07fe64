#include "tools/pair_rectifier.h"

#include <cstdint>

#include "qxtools/stereo_matcher.h"

namespace qx::tools {

PairRectifier::PairRectifier(const std::vector<std::string>& files)
    : calibration_(utils::stereo::ReadStereoCalibration(files)) {}

void PairRectifier::Prepare(const PicturePair& pair) {
  if (rectifier_) return;
  const LumaView size(pair.left);
  rectifier_.emplace(calibration_, static_cast<int>(size.width), static_cast<int>(size.height));
  // A white picture stays white where the camera sees it.
  std::vector<std::uint8_t> white(std::size_t{size.width} * size.height, 255);
  const auto seen = rectifier_->RectifyLeft(velkar::vision::ImageFrameImpl::Create(
      kQXPixelFormatGray8, white.data(), size.height, size.width, 1));
  for (std::size_t i = 0; i < white.size(); ++i) {
    if (seen->Data()[i] < 255) unseen_.push_back(i);
  }
}

PicturePair PairRectifier::Rectify(const PicturePair& pair) const {
  const auto luma = rectifier_->Rectify(pair.left, pair.right);
  PicturePair rectified{luma.left, luma.right, nullptr, nullptr};
  if (pair.left_colours) rectified.left_colours = rectifier_->RectifyLeft(pair.left_colours);
  if (pair.right_colours) rectified.right_colours = rectifier_->RectifyRight(pair.right_colours);
  return rectified;
}

void PairRectifier::DropUnseen(velkar::vision::ImageFrameImpl& disparity) const {
  auto* const values = reinterpret_cast<std::uint16_t*>(disparity.Data());
  for (const std::size_t i : unseen_) values[i] = utils::stereo::kMissingDisparity;
}

}  // namespace qx::tools
