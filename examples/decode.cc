// Decodes a file or camera and prints the mean brightness of each picture: decode INPUT
#include <qxtools/annexb_filter.h>
#include <qxtools/ffmpeg_demuxer.h>
#include <qxtools/ffmpeg_video_decoder.h>

#include <cstdio>
#include <memory>

namespace ffmpeg = qx::utils::ffmpeg;
namespace video = qx::utils::video;
using Frame = std::shared_ptr<velkar::vision::ImageFrame>;

static void PrintBrightness(const Frame& frame) {
  const ffmpeg::FrameLayout* layout = ffmpeg::LayoutOf(frame);
  if (layout->presentation_time != video::kNoTime) {
    std::printf("%8.3f s, ", static_cast<double>(layout->presentation_time) *
                                 layout->time_base_num / layout->time_base_den);
  }
  const auto& luma = layout->planes[0];
  double sum = 0;
  for (std::uint32_t y = 0; y < luma.rows; ++y) {
    const std::uint8_t* row = frame->Data() + luma.offset + std::size_t{y} * luma.pitch;
    for (std::uint32_t x = 0; x < luma.row_bytes; ++x) sum += row[x];
  }
  std::printf("%u x %u, mean brightness %.1f%s\n", layout->width, layout->height,
              sum / (static_cast<double>(luma.rows) * luma.row_bytes),
              layout->damaged ? ", damaged" : "");
}

int main(int argc, char** argv) {
  video::FfmpegDemuxer demuxer;
  video::AnnexBFilter filter;  // for cameras too: some send their parameter sets only once
  if (argc != 2 || demuxer.Open(argv[1], {}) != 0 || filter.Init(demuxer) != 0) return 1;

  // What the callback uses stands before the decoder, and so is destroyed after it.
  int delivered = 0;
  const auto decoder = ffmpeg::CreateFfmpegDecoder();
  if (decoder->Init() != 0) return 1;
  decoder->SetCallback([&](const Frame& frame, void* /*user_data*/) {  // on the decoder's thread
    PrintBrightness(frame);
    ++delivered;
  });

  while (const auto packet = demuxer.ReadFrame()) {
    const auto annexb = filter.Filter(packet);
    if (annexb == nullptr) continue;  // damaged
    const int status = decoder->SendFrame(annexb, nullptr);
    if (status != ffmpeg::kDecodeOk && status != ffmpeg::kDecodeNoPicture) {
      std::fprintf(stderr, "packet not decoded: status %d\n", status);
    }
  }
  decoder->Drain(nullptr);  // pictures that were held back for reordering
  decoder->WaitUntilDelivered();
  return delivered > 0 ? 0 : 1;
}
