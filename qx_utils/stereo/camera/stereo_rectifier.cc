#include "qxtools/stereo_rectifier.h"

#include <cmath>
#include <stdexcept>
#include <string>

#include "qx_utils/stereo/camera/calibration_checks.h"
#include "qx_utils/stereo/camera/rectification_table.h"
#include "qx_utils/stereo/frames.h"
#include "qx_utils/stereo/kernel_choice.h"
#include "qxtools/stereo_matcher.h"

namespace qx::utils::stereo {
namespace {

[[noreturn]] void Refuse(const std::string& reason) { throw std::invalid_argument(reason); }

std::string SizeText(std::size_t width, std::size_t height) {
  return std::to_string(width) + " x " + std::to_string(height);
}

void CheckCamera(const CameraCalibration& camera, const char* name) {
  const auto refuse = [&](const char* what, const char* fault) {
    Refuse(std::string("the ") + name + " camera's " + what + " " + fault);
  };
  const auto check = [&](const auto& values, const char* what) {
    for (const double value : values) {
      if (!std::isfinite(value)) refuse(what, "holds NaN or infinity");
    }
  };
  check(camera.camera_matrix, "camera_matrix");
  check(camera.distortion, "distortion");
  check(camera.rectification, "rectification");
  check(camera.projection, "projection");
  const auto& matrix = camera.camera_matrix;
  if (!(matrix[0] > 0 && matrix[4] > 0)) refuse("camera_matrix", "has no positive focal length");
  const auto& projection = camera.projection;
  if (!(projection[0] > 0 && projection[5] > 0)) {
    refuse("projection", "has no positive focal length");
  }
}

StereoCalibration Completed(StereoCalibration calibration, int width, int height) {
  constexpr int kMax = kMaxRemapSize;
  if (width < 1 || height < 1 || width > kMax || height > kMax) {
    Refuse("pictures of " + std::to_string(width) + " x " + std::to_string(height) +
           " pixels cannot be rectified, only 1 x 1 to 32767 x 32767");
  }
  CheckPictureSize(calibration, width, height);
  if (!calibration.has_rectification) ComputeRectification(calibration, width, height);
  CheckCamera(calibration.left, "left");
  CheckCamera(calibration.right, "right");
  return calibration;
}

// A raw picture: grey, or with 3 bytes a pixel.
struct Raw {
  GreyView view;
  bool is_colour;
};

Raw RawOf(const FramePtr& frame, const PictureSize& size, const char* name) {
  Raw raw{};
  raw.is_colour = frame != nullptr && frame->pixel_format == kQXPixelFormatRGB888;
  if (raw.is_colour) {
    const Shape shape = ShapeOf(frame, kQXPixelFormatRGB888, 1, name);
    if (shape.channels != 3) {
      Refuse(std::string(name) + ": " + Text(shape) + " values, not three for each pixel");
    }
    raw.view = {frame->Data(), 3 * shape.width, shape.width, shape.height};
  } else {
    raw.view = LumaOf(frame, name);
  }
  if (raw.view.width != size.width || raw.view.height != size.height) {
    Refuse(std::string(name) + ": " + SizeText(raw.view.width, raw.view.height) +
           " pixels, but the rectifier is for " + SizeText(size.width, size.height));
  }
  return raw;
}

FrameImplPtr Remap(const RemapTable& table, const Raw& raw) {
  const RemapView map = table.View();
  auto result = raw.is_colour ? NewFrame(kQXPixelFormatRGB888, {map.height, map.width, 3}, 1)
                              : NewFrame(kQXPixelFormatGray8, {map.height, map.width, 1}, 1);
  const RemapKernel& kernel = ChosenRemap();
  RemapPicture(raw.is_colour ? kernel.colour : kernel.grey, map, raw.view, result->Data());
  return result;
}

}  // namespace

struct RectifierState {
  RectifierState(const StereoCalibration& given, int width, int height)
      : calibration(Completed(given, width, height)),
        geometry(GeometryOf(calibration)),
        size{static_cast<std::size_t>(width), static_cast<std::size_t>(height)},
        left(RectificationTable(calibration.left, size)),
        right(RectificationTable(calibration.right, size)) {}

  bool MatchIsCovered(std::size_t x, std::size_t y, std::uint16_t disparity) const;

  const StereoCalibration calibration;
  const StereoGeometry geometry;
  const PictureSize size;
  const RemapTable left, right;
};

bool RectifierState::MatchIsCovered(std::size_t x, std::size_t y, std::uint16_t disparity) const {
  const std::size_t columns = (disparity + kDisparityUnits / 2U) / kDisparityUnits;
  return columns <= x && right.IsCovered(x - columns, y);
}

StereoRectifier::StereoRectifier(const StereoCalibration& calibration, int width, int height)
    : state_(std::make_unique<RectifierState>(calibration, width, height)) {}
StereoRectifier::~StereoRectifier() = default;
StereoRectifier::StereoRectifier(StereoRectifier&& other) noexcept = default;
StereoRectifier& StereoRectifier::operator=(StereoRectifier&& other) noexcept = default;

RectifiedPair StereoRectifier::Rectify(const FramePtr& left, const FramePtr& right) const {
  const Raw raw_left = RawOf(left, state_->size, "left");
  const Raw raw_right = RawOf(right, state_->size, "right");
  return {Remap(state_->left, raw_left), Remap(state_->right, raw_right)};
}

FrameImplPtr StereoRectifier::RectifyLeft(const FramePtr& left) const {
  return Remap(state_->left, RawOf(left, state_->size, "left"));
}

FrameImplPtr StereoRectifier::RectifyRight(const FramePtr& right) const {
  return Remap(state_->right, RawOf(right, state_->size, "right"));
}

void StereoRectifier::DropUncovered(velkar::vision::ImageFrameImpl& disparity) const {
  const auto [width, height] = state_->size;
  // Borrowed: the caller keeps the frame for the call.
  const FramePtr frame(FramePtr(), &disparity);
  const Shape shape = ShapeOf(frame, kQXPixelFormatGray16, 2, "disparity");
  if (!(shape == Shape{height, width, 1})) {
    Refuse("disparity: " + Text(shape) + " values, but the rectifier is for " +
           Text({height, width, 1}));
  }
  auto* value = reinterpret_cast<std::uint16_t*>(disparity.Data());
  for (std::size_t y = 0; y < height; ++y) {
    for (std::size_t x = 0; x < width; ++x, ++value) {
      const bool keep = state_->left.IsCovered(x, y) && state_->MatchIsCovered(x, y, *value);
      if (!keep) *value = kMissingDisparity;
    }
  }
}

const StereoGeometry& StereoRectifier::Geometry() const { return state_->geometry; }

const StereoCalibration& StereoRectifier::Calibration() const { return state_->calibration; }

}  // namespace qx::utils::stereo
