#include "qx_utils/image/ffmpeg/swscale.h"

#include "qx_utils/image/ffmpeg/failure.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace qx::utils::image::engine {
namespace {

struct ScalerDeleter {
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using Scaler = std::unique_ptr<SwsContext, ScalerDeleter>;

// The coefficients of a matrix; FFmpeg takes unspecified ones for BT.601.
const int* CoefficientsOf(const YuvCoding& coding) { return sws_getCoefficients(coding.matrix); }

Scaler OpenScaler(const PictureView& source, const PictureView& target, int flags) {
  Scaler scaler(sws_getContext(source.width, source.height, source.format, target.width,
                               target.height, target.format, flags, nullptr, nullptr, nullptr));
  if (scaler == nullptr) throw Failure("sws_getContext failed");
  constexpr int kOne = 1 << 16;
  // Fails, harmlessly, where neither format is YUV.
  sws_setColorspaceDetails(scaler.get(), CoefficientsOf(source.coding),
                           source.coding.full_range ? 1 : 0, CoefficientsOf(target.coding),
                           target.coding.full_range ? 1 : 0, 0, kOne, kOne);
  return scaler;
}

}  // namespace

void ScaleInto(const PictureView& source, const PictureView& target, int flags) {
  const Scaler scaler = OpenScaler(source, target, flags);
  Check(sws_scale(scaler.get(), source.data.data(), source.pitch.data(), 0, source.height,
                  target.data.data(), target.pitch.data()),
        "sws_scale");
}

}  // namespace qx::utils::image::engine
