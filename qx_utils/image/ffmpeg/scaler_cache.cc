#include "qx_utils/image/ffmpeg/scaler_cache.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "qx_utils/image/ffmpeg/failure.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace qx::utils::image::engine {
namespace {

struct ScalerDeleter {
  void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};

// Width, height, format, range and matrix of source and target, and the flags.
using Key = std::array<int, 11>;

struct Entry {
  Key key{};
  std::unique_ptr<SwsContext, ScalerDeleter> scaler;
};

// Enough for a picture scaled to three sizes through an intermediate one each.
constexpr std::size_t kScalersPerThread = 6;

Key KeyOf(const PictureView& source, const PictureView& target, int flags) {
  return {source.width,
          source.height,
          source.format,
          source.coding.full_range ? 1 : 0,
          source.coding.matrix,
          target.width,
          target.height,
          target.format,
          target.coding.full_range ? 1 : 0,
          target.coding.matrix,
          flags};
}

SwsContext* Open(const PictureView& source, const PictureView& target, int flags) {
  SwsContext* const scaler =
      sws_getContext(source.width, source.height, source.format, target.width, target.height,
                     target.format, flags, nullptr, nullptr, nullptr);
  if (scaler == nullptr) throw Failure("sws_getContext failed");
  return scaler;
}

// Unspecified matrices are BT.601's for FFmpeg.
void SetCoding(SwsContext* scaler, const YuvCoding& source, const YuvCoding& target) {
  constexpr int kOne = 1 << 16;
  // Fails, harmlessly, where neither format is YUV.
  sws_setColorspaceDetails(scaler, sws_getCoefficients(source.matrix), source.full_range ? 1 : 0,
                           sws_getCoefficients(target.matrix), target.full_range ? 1 : 0, 0, kOne,
                           kOne);
}

}  // namespace

SwsContext* ScalerFor(const PictureView& source, const PictureView& target, int flags) {
  thread_local std::array<Entry, kScalersPerThread> scalers;  // the last one used is the first
  const Key key = KeyOf(source, target, flags);
  auto found = std::find_if(scalers.begin(), scalers.end(), [&](const Entry& entry) {
    return entry.scaler != nullptr && entry.key == key;
  });
  if (found == scalers.end()) {
    found = std::prev(scalers.end());
    found->scaler.reset();
    found->scaler.reset(Open(source, target, flags));
    found->key = key;
    if (source.format != target.format)
      SetCoding(found->scaler.get(), source.coding, target.coding);
  }
  std::rotate(scalers.begin(), found, found + 1);
  return scalers.front().scaler.get();
}

}  // namespace qx::utils::image::engine
