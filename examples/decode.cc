// Decodes a file or camera and prints the mean brightness of each picture: decode INPUT
#include <qxtools/annexb_filter.h>
#include <qxtools/ffmpeg_demuxer.h>
#include <qxtools/ffmpeg_video_decoder.h>

#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>

namespace ffmpeg = qx::utils::ffmpeg;
namespace video = qx::utils::video;
using Frame = std::shared_ptr<velkar::vision::ImageFrame>;

static void PrintBrightness(const Frame& frame) {
  const ffmpeg::FrameLayout* layout = ffmpeg::LayoutOf(frame);
  const auto& luma = layout->planes[0];
  double sum = 0;
  for (std::uint32_t y = 0; y < luma.rows; ++y) {
    const std::uint8_t* row = frame->Data() + luma.offset + std::size_t{y} * luma.pitch;
    for (std::uint32_t x = 0; x < luma.row_bytes; ++x) sum += row[x];
  }
  std::printf("%u x %u, mean brightness %.1f\n", layout->width, layout->height,
              sum / (static_cast<double>(luma.rows) * luma.row_bytes));
}

int main(int argc, char** argv) {
  video::FfmpegDemuxer demuxer;
  video::AnnexBFilter filter;
  if (argc != 2 || demuxer.Open(argv[1], {}) != 0 || filter.Init(demuxer) != 0) return 1;
  const auto decoder = ffmpeg::CreateFfmpegDecoder();
  if (decoder->Init() != 0) return 1;

  std::mutex mutex;
  std::condition_variable progress;
  int delivered = 0;
  decoder->SetCallback([&](const Frame& frame, void* /*user_data*/) {  // on the decoder's thread
    PrintBrightness(frame);
    const std::lock_guard<std::mutex> lock(mutex);
    ++delivered;
    progress.notify_one();
  });

  int sent = 0;
  while (const auto packet = demuxer.ReadFrame()) {
    const auto annexb = filter.Filter(packet);
    if (annexb && decoder->SendFrame(annexb, nullptr) == ffmpeg::kDecodeOk) ++sent;
  }
  // An empty packet asks for a picture that was held back for reordering.
  const auto drain = std::make_shared<video::StreamPacket>();
  while (decoder->SendFrame(drain, nullptr) == ffmpeg::kDecodeOk) ++sent;

  std::unique_lock<std::mutex> lock(mutex);
  progress.wait(lock, [&] { return delivered == sent; });
  return sent > 0 ? 0 : 1;
}
