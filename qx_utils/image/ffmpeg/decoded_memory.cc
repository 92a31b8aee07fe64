#include "qx_utils/image/ffmpeg/decoded_memory.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

extern "C" {
#include <libavutil/imgutils.h>
}

namespace qx::utils::image::engine {
namespace {

bool IsShared(int format) {
  return format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_YUV420P ||
         format == AV_PIX_FMT_GRAY8 || format == AV_PIX_FMT_RGB24;
}

// Sets the pitches that the decoder needs. Returns: the number of rows that it may write.
int SetPitches(AVCodecContext* context, AVFrame* picture) {
  int width = picture->width, rows = picture->height;
  std::array<int, AV_NUM_DATA_POINTERS> alignment{};
  avcodec_align_dimensions2(context, &width, &rows, alignment.data());
  const auto unaligned = [&] {
    for (std::size_t plane = 0; plane < 4; ++plane) {
      if (alignment[plane] != 0 && picture->linesize[plane] % alignment[plane] != 0) return true;
    }
    return false;
  };
  do {
    av_image_fill_linesizes(picture->linesize, context->pix_fmt, width);
    width += width & -width;  // adds the lowest bit, so the pitches end up in more and more zeros
  } while (unaligned());
  return rows;
}

}  // namespace

int GetDecoderBuffer(AVCodecContext* context, AVFrame* picture, int flags) {
  if (!IsShared(picture->format)) return avcodec_default_get_buffer2(context, picture, flags);
  const auto format = static_cast<AVPixelFormat>(picture->format);
  const int rows = SetPitches(context, picture);
  const int bytes = av_image_fill_pointers(picture->data, format, rows, nullptr, picture->linesize);
  constexpr int kSlack = 128;  // FFmpeg's vector code may touch that much after the last row
  if (bytes < 0 || bytes > INT_MAX - kSlack) return AVERROR(EINVAL);
  // Zeros, so that a decoder that leaves pixels out shows nothing of this process.
  picture->buf[0] = av_buffer_allocz(static_cast<internal::BufferSize>(bytes) + kSlack);
  if (picture->buf[0] == nullptr) return AVERROR(ENOMEM);
  picture->extended_data = picture->data;
  return av_image_fill_pointers(picture->data, format, rows, picture->buf[0]->data,
                                picture->linesize);
}

FramePtr Adopt(internal::FfmpegPtr<AVFrame>& picture, const PictureView& view,
               QXPixelFormat format) {
  const AVBufferRef* memory = picture->buf[0];
  const bool ours = IsShared(picture->format) && memory != nullptr && picture->buf[1] == nullptr &&
                    picture->data[0] == memory->data && av_buffer_is_writable(memory) == 1;
  if (!ours) return nullptr;
  std::uint8_t* to = memory->data;
  for (std::size_t plane = 0; plane < 4 && view.data[plane] != nullptr; ++plane) {
    const PlaneSize size = SizeOfPlane(view, plane);
    for (std::ptrdiff_t y = 0; y < size.rows; ++y, to += size.row_bytes) {
      const std::uint8_t* from = view.data[plane] + y * view.pitch[plane];
      if (to != from) std::memmove(to, from, static_cast<std::size_t>(size.row_bytes));
    }
  }
  std::uint8_t* const data = memory->data;
  return FrameOver(data, std::shared_ptr<AVFrame>(std::move(picture)), format, view);
}

}  // namespace qx::utils::image::engine
