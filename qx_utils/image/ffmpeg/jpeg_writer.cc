#include "qx_utils/image/ffmpeg/jpeg_writer.h"

#include <turbojpeg.h>

#include <algorithm>
#include <memory>
#include <string>

#include "qx_utils/image/ffmpeg/failure.h"

namespace qx::utils::image::engine {
namespace {

constexpr int kMaxSide = 65500;  // libjpeg-turbo's

struct CompressorDeleter {
  void operator()(void* compressor) const { tjDestroy(compressor); }
};
using Compressor = std::unique_ptr<void, CompressorDeleter>;

// What libjpeg-turbo allocates and grows.
struct Buffer {
  Buffer() = default;
  ~Buffer() { tjFree(data); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  unsigned char* data = nullptr;
  unsigned long size = 0;  // NOLINT(google-runtime-int): libjpeg-turbo's type
};

// Returns: libjpeg-turbo's name for the order of packed channels; -1 for other formats.
int PackedFormat(AVPixelFormat format) {
  switch (format) {
    case AV_PIX_FMT_RGB24:
      return TJPF_RGB;
    case AV_PIX_FMT_BGR24:
      return TJPF_BGR;
    case AV_PIX_FMT_ARGB:
      return TJPF_XRGB;
    case AV_PIX_FMT_BGRA:
      return TJPF_BGRX;
    default:
      return -1;
  }
}

// Returns: libjpeg-turbo's status, 0 for success.
int Compress(tjhandle compressor, const PictureView& picture, int quality, bool subsampled,
             Buffer& file) {
  const int flags = TJFLAG_ACCURATEDCT;
  const int packed = PackedFormat(picture.format);
  if (packed != -1) {
    return tjCompress2(compressor, picture.data[0], picture.width, picture.pitch[0], picture.height,
                       packed, &file.data, &file.size, subsampled ? TJSAMP_420 : TJSAMP_444,
                       quality, flags);
  }
  std::array<const unsigned char*, 4> planes{};
  std::copy(picture.data.begin(), picture.data.end(), planes.begin());
  return tjCompressFromYUVPlanes(compressor, planes.data(), picture.width, picture.pitch.data(),
                                 picture.height,
                                 picture.format == AV_PIX_FMT_GRAY8 ? TJSAMP_GRAY : TJSAMP_420,
                                 &file.data, &file.size, quality, flags);
}

}  // namespace

std::vector<unsigned char> WriteJpeg(const PictureView& picture, std::uint32_t quality,
                                     bool subsampled) {
  if (picture.width > kMaxSide || picture.height > kMaxSide) {
    throw Failure(std::to_string(picture.width) + " x " + std::to_string(picture.height) +
                  " is above JPEG's limit of " + std::to_string(kMaxSide));
  }
  const Compressor compressor(tjInitCompress());
  if (compressor == nullptr) throw Failure("tjInitCompress failed");
  Buffer file;
  if (Compress(compressor.get(), picture, static_cast<int>(quality), subsampled, file) != 0) {
    throw Failure(std::string("libjpeg-turbo: ") + tjGetErrorStr2(compressor.get()));
  }
  return {file.data, file.data + file.size};
}

}  // namespace qx::utils::image::engine
