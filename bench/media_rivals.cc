#include "bench/media_rivals.h"

#include <png.h>

#include <algorithm>

#include "bench/interleaved.h"

#if defined(QXTOOLS_HAVE_TURBOJPEG)
#include <turbojpeg.h>
#endif

namespace qx::bench {
namespace {

void Succeed(int code, const char* what) { Require(code >= 0, what); }

}  // namespace

FfmpegPtr<AVFrame> NewPicture(int format, int width, int height) {
  FfmpegPtr<AVFrame> picture(av_frame_alloc());
  picture->format = format;
  picture->width = width;
  picture->height = height;
  Succeed(av_frame_get_buffer(picture.get(), 0), "memory for a picture");
  return picture;
}

BareDecoder::BareDecoder(AVCodecID codec, const Bytes& file) {
  const AVCodec* const decoder = avcodec_find_decoder(codec);
  context_.reset(avcodec_alloc_context3(decoder));
  context_->thread_count = 1;
  Succeed(avcodec_open2(context_.get(), decoder, nullptr), "FFmpeg's decoder");
  Succeed(av_new_packet(packet_.get(), static_cast<int>(file.size())), "memory for a packet");
  std::copy(file.begin(), file.end(), packet_->data);
}

const AVFrame& BareDecoder::Run() {
  Succeed(avcodec_send_packet(context_.get(), packet_.get()), "FFmpeg's decoder");
  Succeed(avcodec_receive_frame(context_.get(), frame_.get()), "FFmpeg's decoder");
  return *frame_;
}

BareEncoder::BareEncoder(AVCodecID codec, const AVFrame& like, int scale) {
  const AVCodec* const encoder = avcodec_find_encoder(codec);
  context_.reset(avcodec_alloc_context3(encoder));
  context_->thread_count = 1;
  context_->width = like.width;
  context_->height = like.height;
  context_->pix_fmt = static_cast<AVPixelFormat>(like.format);
  context_->color_range = AVCOL_RANGE_JPEG;
  context_->time_base = {1, 25};
  if (scale > 0) {
    context_->flags |= AV_CODEC_FLAG_QSCALE;
    context_->global_quality = scale * FF_QP2LAMBDA;
  }
  Succeed(avcodec_open2(context_.get(), encoder, nullptr), "FFmpeg's encoder");
}

const AVPacket& BareEncoder::Run(const AVFrame& picture) {
  Succeed(avcodec_send_frame(context_.get(), &picture), "FFmpeg's encoder");
  Succeed(avcodec_receive_packet(context_.get(), packet_.get()), "FFmpeg's encoder");
  return *packet_;
}

BareScaler::BareScaler(const AVFrame& from, int width, int height, int flags)
    : context_(sws_getContext(from.width, from.height, static_cast<AVPixelFormat>(from.format),
                              width, height, static_cast<AVPixelFormat>(from.format), flags,
                              nullptr, nullptr, nullptr),
               sws_freeContext),
      scaled_(NewPicture(from.format, width, height)) {
  Require(context_ != nullptr, "libswscale");
}

const AVFrame& BareScaler::Run(const AVFrame& picture) {
  sws_scale(context_.get(), picture.data, picture.linesize, 0, picture.height, scaled_->data,
            scaled_->linesize);
  return *scaled_;
}

#if defined(QXTOOLS_HAVE_TURBOJPEG)
Turbo::Turbo() : decoder_(tjInitDecompress(), tjDestroy), encoder_(tjInitCompress(), tjDestroy) {}

void Turbo::Decode(const Bytes& file, AVFrame& picture) {
  Succeed(tjDecompressToYUVPlanes(decoder_.get(), file.data(), file.size(), picture.data,
                                  picture.width, picture.linesize, picture.height, 0),
          "libjpeg-turbo's decoder");
}

std::size_t Turbo::Encode(const AVFrame& picture, int quality) {
  if (file_.empty()) file_.resize(tjBufSize(picture.width, picture.height, TJSAMP_420));
  const std::uint8_t* planes[] = {picture.data[0], picture.data[1], picture.data[2]};
  unsigned char* to = file_.data();
  unsigned long size = file_.size();
  Succeed(
      tjCompressFromYUVPlanes(encoder_.get(), planes, picture.width, picture.linesize,
                              picture.height, TJSAMP_420, &to, &size, quality, TJFLAG_NOREALLOC),
      "libjpeg-turbo's encoder");
  return size;
}
#endif

void PngDecode(const Bytes& file, Bytes& rgb) {
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  Require(png_image_begin_read_from_memory(&image, file.data(), file.size()) != 0, "libpng");
  image.format = PNG_FORMAT_RGB;
  rgb.resize(PNG_IMAGE_SIZE(image));
  Require(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr) != 0, "libpng");
}

std::size_t PngEncode(const Bytes& rgb, int width, int height, Bytes& file) {
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width);
  image.height = static_cast<png_uint_32>(height);
  image.format = PNG_FORMAT_RGB;
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
  file.resize(size);
  Require(png_image_write_to_memory(&image, file.data(), &size, 0, rgb.data(), 0, nullptr) != 0,
          "libpng");
  return size;
}

}  // namespace qx::bench
