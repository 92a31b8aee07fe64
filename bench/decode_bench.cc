// Decoding through FfmpegDecoder against a bare send/receive loop with one copy of each picture.
// Usage: decode_bench CLIP.h264 [RUNS]
//
// Three ways over the same packets, which lie in memory, take turns in every run. A short clip is
// played over and over, to 500 packets at least: what starting a decoder costs is not compared.
//   decoder  FfmpegDecoder, until the last frame has been delivered
//   bare     avcodec_send_packet on FFmpeg's own packets, avcodec_receive_frame, and one copy of
//            the picture, row by row, into a new buffer
//   reused   the same, into one buffer that is used again
// Prints the medians, and the median over the runs of the ratio to each rival.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "qx_utils/internal/ffmpeg_handles.h"
#include "qxtools/ffmpeg_video_decoder.h"

namespace {

using qx::utils::internal::FfmpegPtr;
using Packets = std::vector<FfmpegPtr<AVPacket>>;

constexpr std::size_t kMinPackets = 500;

Packets ReadPackets(const char* path) {
  AVFormatContext* opened = nullptr;
  if (avformat_open_input(&opened, path, nullptr, nullptr) < 0) return {};
  const FfmpegPtr<AVFormatContext> input(opened);
  Packets packets;
  for (;;) {
    FfmpegPtr<AVPacket> packet(av_packet_alloc());
    if (av_read_frame(opened, packet.get()) < 0) break;
    packets.push_back(std::move(packet));
  }
  const std::size_t clip = packets.size();
  for (std::size_t i = 0; clip > 0 && (i % clip != 0 || packets.size() < kMinPackets); ++i) {
    packets.emplace_back(av_packet_clone(packets[i].get()));
  }
  return packets;
}

// Returns: the number of pictures.
std::size_t RunDecoder(const Packets& packets) {
  std::atomic<std::size_t> delivered{0};
  const auto decoder = qx::utils::ffmpeg::CreateFfmpegDecoder();
  if (decoder->Init() != 0) return 0;
  decoder->SetCallback(
      [&delivered](std::shared_ptr<velkar::vision::ImageFrame>, void*) { ++delivered; });
  std::size_t sent = 0;
  for (const auto& packet : packets) {
    const auto stream_packet = std::make_shared<qx::utils::video::StreamPacket>();
    stream_packet->data = packet->data;
    stream_packet->size = static_cast<std::uint64_t>(packet->size);
    sent += decoder->SendFrame(stream_packet, nullptr) == 0 ? 1 : 0;
  }
  const auto drain = std::make_shared<qx::utils::video::StreamPacket>();
  while (decoder->SendFrame(drain, nullptr) == 0) ++sent;
  while (delivered < sent) std::this_thread::sleep_for(std::chrono::microseconds(50));
  return sent;
}

void CopyRows(const AVFrame& picture, std::uint8_t* to) {
  for (int plane = 0; plane < 3; ++plane) {
    const int shift = plane == 0 ? 0 : 1;
    for (int row = 0; row < picture.height >> shift; ++row, to += picture.linesize[plane]) {
      std::memcpy(to, picture.data[plane] + row * picture.linesize[plane],
                  static_cast<std::size_t>(picture.width >> shift));
    }
  }
}

std::size_t RunBare(const Packets& packets, bool reuse) {
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  const FfmpegPtr<AVCodecContext> context(avcodec_alloc_context3(codec));
  if (avcodec_open2(context.get(), codec, nullptr) < 0) return 0;
  const FfmpegPtr<AVFrame> picture(av_frame_alloc());
  std::unique_ptr<std::uint8_t[]> copy;
  std::size_t count = 0;
  for (std::size_t i = 0; i <= packets.size(); ++i) {
    avcodec_send_packet(context.get(), i < packets.size() ? packets[i].get() : nullptr);
    while (avcodec_receive_frame(context.get(), picture.get()) == 0) {
      const int bytes = picture->height * picture->linesize[0] +
                        picture->height / 2 * (picture->linesize[1] + picture->linesize[2]);
      if (!reuse || copy == nullptr) copy.reset(new std::uint8_t[static_cast<std::size_t>(bytes)]);
      CopyRows(*picture, copy.get());
      ++count;
    }
  }
  return count;
}

template <typename Function>
double Milliseconds(Function function, std::size_t& pictures) {
  const auto start = std::chrono::steady_clock::now();
  pictures = function();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: decode_bench CLIP.h264 [RUNS]\n");
    return 2;
  }
  const Packets packets = ReadPackets(argv[1]);
  const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 31;
  std::vector<double> decoder, bare, reused, to_bare, to_reused;
  std::size_t pictures = 0, bare_pictures = 0, reused_pictures = 0;
  for (int run = 0; run <= runs; ++run) {  // the first one warms up
    const double a = Milliseconds([&] { return RunDecoder(packets); }, pictures);
    const double b = Milliseconds([&] { return RunBare(packets, false); }, bare_pictures);
    const double c = Milliseconds([&] { return RunBare(packets, true); }, reused_pictures);
    if (pictures == 0 || pictures != bare_pictures || pictures != reused_pictures) {
      std::fprintf(stderr, "decode_bench: %s: %zu, %zu and %zu pictures\n", argv[1], pictures,
                   bare_pictures, reused_pictures);
      return 1;
    }
    if (run == 0) continue;
    decoder.push_back(a);
    bare.push_back(b);
    reused.push_back(c);
    to_bare.push_back(a / b);
    to_reused.push_back(a / c);
  }
  std::printf("%zu pictures, %d runs: decoder %.2f ms, bare %.2f ms, reused %.2f ms\n", pictures,
              runs, Median(decoder), Median(bare), Median(reused));
  std::printf("decoder / bare   %.3f\ndecoder / reused %.3f\n", Median(to_bare), Median(to_reused));
  return 0;
}
