// Pictures of 1920 x 1080 through the front ends of the media processor with the library's engine,
// against FFmpeg's own functions, libjpeg-turbo and libpng in the same process.
// Usage: media_bench [ROUNDS] [PICTURE]
//
// The picture (default: the left one of samples/aloe) is scaled to that size first. Prints for each
// contender the median processor time of a call and the median ratio of the engine's time to it;
// then how much more work two and four threads do than one, next to FFmpeg's own functions with a
// context per thread. Ends with status 1 when contenders disagree about a picture.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/interleaved.h"
#include "bench/media_rivals.h"
#include "qx_utils/image/ffmpeg/picture_view.h"
#include "qxtools/ffmpeg_media_proc.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace qx::bench {
namespace {

namespace image = utils::image;
using image::engine::FramePtr;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr std::uint32_t kQuality = 90;

Bytes ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Returns: a copy for FFmpeg's functions, in memory of its own as they like it.
FfmpegPtr<AVFrame> CopyOf(const FramePtr& frame, int format) {
  const image::engine::PictureView view = image::engine::ViewOf(frame);
  auto picture = NewPicture(format, view.width, view.height);
  const std::uint8_t* from[4] = {view.data[0], view.data[1], view.data[2], view.data[3]};
  av_image_copy(picture->data, picture->linesize, from, view.pitch.data(),
                static_cast<AVPixelFormat>(format), view.width, view.height);
  return picture;
}

// Requires that luma, or the interleaved bytes, differ by no more than `most` in the mean.
void RequireAlike(const FramePtr& frame, const AVFrame& rival, int row_bytes, double most,
                  const char* what) {
  double sum = 0;
  for (int y = 0; y < rival.height; ++y) {
    const std::uint8_t* ours = frame->Data() + y * row_bytes;
    const std::uint8_t* theirs = rival.data[0] + y * rival.linesize[0];
    for (int x = 0; x < row_bytes; ++x) sum += std::abs(ours[x] - theirs[x]);
  }
  Require(sum <= most * row_bytes * rival.height, what);
}

// The engine first, then its rivals.
void Compare(const char* title, const std::vector<Contender>& contenders, int rounds) {
  Rounds how;
  how.count = rounds;
  how.untimed_runs = 1;
  how.seconds = 5e-3;
  const std::vector<Times> times = RunInterleaved(contenders, how);
  std::printf("\n%s, medians of %d rounds\n  %-44s %10s %16s\n", title, rounds, "", "ms",
              "engine's / its");
  for (std::size_t i = 0; i < contenders.size(); ++i) {
    std::printf("  %-44s %10.3f %16.3f\n", contenders[i].name.c_str(),
                Median(times[i].processor) * 1e3,
                MedianRatio(times[0].processor, times[i].processor));
  }
}

// Returns: the value from `low` to `high` for which `size_of` is closest to `size`.
int Closest(int low, int high, std::size_t size, const std::function<std::size_t(int)>& size_of) {
  const auto distance = [&](int value) {
    return std::labs(static_cast<long>(size_of(value)) - static_cast<long>(size));
  };
  int best = low;
  for (int value = low + 1; value <= high; ++value) {
    if (distance(value) < distance(best)) best = value;
  }
  return best;
}

void CompareJpegDecoding(const Bytes& file, int rounds) {
  const FramePtr frame = image::Decode(file.data(), file.size(), 0);
  BareDecoder bare(AV_CODEC_ID_MJPEG, file);
  RequireAlike(frame, bare.Run(), kWidth, 0, "FFmpeg's JPEG decoder");
  std::vector<Contender> all = {
      {"engine", [&] { static_cast<void>(image::Decode(file.data(), file.size(), 0)); }},
      {"FFmpeg, context and packet kept", [&] { bare.Run(); }}};
#if defined(QXTOOLS_HAVE_TURBOJPEG)
  Turbo turbo;
  const auto planes = NewPicture(AV_PIX_FMT_YUV420P, kWidth, kHeight);
  turbo.Decode(file, *planes);
  RequireAlike(frame, *planes, kWidth, 0.1, "libjpeg-turbo's decoder");
  all.push_back({"libjpeg-turbo, into planes", [&] { turbo.Decode(file, *planes); }});
#endif
  Compare("JPEG decode, 4:2:0", all, rounds);
}

void CompareJpegEncoding(const FramePtr& frame, int rounds) {
  const image::EncodeParams params{kQuality};
  const auto encode = [&] { return image::Encode(frame, image::kImageFileFormatJpeg, params, 0); };
  const auto picture = CopyOf(frame, AV_PIX_FMT_YUVJ420P);
  const std::size_t size = encode().size();
  const int scale = Closest(1, 20, size, [&](int value) {
    return static_cast<std::size_t>(
        BareEncoder(AV_CODEC_ID_MJPEG, *picture, value).Run(*picture).size);
  });
  BareEncoder bare(AV_CODEC_ID_MJPEG, *picture, scale);
  std::vector<Contender> all = {
      {"engine, " + std::to_string(size) + " bytes", [&] { encode(); }},
      {"FFmpeg, context kept, " + std::to_string(bare.Run(*picture).size) + " bytes",
       [&] { bare.Run(*picture); }}};
#if defined(QXTOOLS_HAVE_TURBOJPEG)
  Turbo turbo;
  const int quality =
      Closest(1, 100, size, [&](int value) { return turbo.Encode(*picture, value); });
  all.push_back({"libjpeg-turbo, " + std::to_string(turbo.Encode(*picture, quality)) + " bytes",
                 [&, quality] { turbo.Encode(*picture, quality); }});
#endif
  Compare("JPEG encode, 4:2:0, files of about one size", all, rounds);
}

void CompareScaling(const char* title, const FramePtr& frame, int format, int width, int height,
                    int flags, int rounds) {
  const auto picture = CopyOf(frame, format);
  BareScaler bare(*picture, width, height, flags);
  const auto scale = [&] {
    return image::Resize(frame, static_cast<std::size_t>(width), static_cast<std::size_t>(height),
                         0);
  };
  RequireAlike(scale(), bare.Run(*picture), format == AV_PIX_FMT_RGB24 ? 3 * width : width, 0.5,
               "libswscale's picture");
  Compare(title,
          {{"engine", [&] { scale(); }}, {"libswscale, context kept", [&] { bare.Run(*picture); }}},
          rounds);
}

void ComparePng(const FramePtr& frame, int rounds) {
  const auto encode = [&] { return image::Encode(frame, image::kImageFileFormatPng, 0); };
  const Bytes file = encode();
  const Bytes rgb(frame->Data(), frame->Data() + frame->DataSize());
  Bytes decoded, written;
  PngDecode(file, decoded);
  Require(decoded == rgb, "a PNG file read by libpng");
  const std::size_t size = PngEncode(rgb, kWidth, kHeight, written);
  const auto picture = CopyOf(frame, AV_PIX_FMT_RGB24);
  BareDecoder decoder(AV_CODEC_ID_PNG, file);
  BareEncoder encoder(AV_CODEC_ID_PNG, *picture, 0);
  Compare("PNG decode, RGB",
          {{"engine", [&] { static_cast<void>(image::Decode(file.data(), file.size(), 0)); }},
           {"FFmpeg, context and packet kept", [&] { decoder.Run(); }},
           {"libpng", [&] { PngDecode(file, decoded); }}},
          rounds);
  Compare("PNG encode, RGB",
          {{"engine, " + std::to_string(file.size()) + " bytes", [&] { encode(); }},
           {"FFmpeg, context kept, " + std::to_string(encoder.Run(*picture).size) + " bytes",
            [&] { encoder.Run(*picture); }},
           {"libpng, " + std::to_string(size) + " bytes",
            [&] { PngEncode(rgb, kWidth, kHeight, written); }}},
          rounds);
}

// Runs one of the `jobs` on each of as many threads.
void RunTogether(const std::vector<std::function<void()>>& jobs) {
  std::vector<std::thread> threads;
  threads.reserve(jobs.size());
  for (const auto& job : jobs) threads.emplace_back(job);
  for (std::thread& thread : threads) thread.join();
}

// Decodes with the engine and with FFmpeg alone on 1, 2 and 4 threads.
void CompareThreads(const Bytes& file, int rounds) {
  std::vector<std::unique_ptr<BareDecoder>> decoders;
  std::vector<std::function<void()>> engine, bare;
  std::vector<Contender> all;
  for (std::size_t count = 1; count <= 4; count *= 2) {
    while (decoders.size() < count) {
      decoders.push_back(std::make_unique<BareDecoder>(AV_CODEC_ID_MJPEG, file));
      bare.emplace_back([decoder = decoders.back().get()] {
        for (int i = 0; i < 8; ++i) decoder->Run();
      });
      engine.emplace_back([&file] {
        for (int i = 0; i < 8; ++i) static_cast<void>(image::Decode(file.data(), file.size(), 0));
      });
    }
    all.push_back({"engine", [engine] { RunTogether(engine); }});
    all.push_back({"FFmpeg", [bare] { RunTogether(bare); }});
  }
  Rounds how;
  how.count = rounds;
  how.one_core = false;
  const std::vector<Times> times = RunInterleaved(all, how);
  std::printf("\nJPEG decode on several threads, medians of %d rounds\n  %8s %26s %26s\n", rounds,
              "threads", "engine's throughput / one", "FFmpeg's throughput / one");
  for (std::size_t i = 0; i < 3; ++i) {
    const double count = 1U << i;
    std::printf("  %8.0f %26.2f %26.2f\n", count,
                count * MedianRatio(times[0].elapsed, times[2 * i].elapsed),
                count * MedianRatio(times[1].elapsed, times[2 * i + 1].elapsed));
  }
}

void Run(const std::string& path, int rounds) {
  image::InstallFfmpegMediaProc();
  const Bytes source = ReadFile(path);
  const FramePtr decoded = image::Decode(source.data(), source.size(), 0);
  Require(decoded != nullptr, path);
  const FramePtr rgb =
      image::CvtColor(image::Resize(decoded, kWidth, kHeight, 0), kQXPixelFormatRGB888, 0);
  const Bytes jpeg =
      image::Encode(rgb, image::kImageFileFormatJpeg, image::EncodeParams{kQuality}, 0);
  const FramePtr planes = image::Decode(jpeg.data(), jpeg.size(), 0);
  CompareThreads(jpeg, rounds);  // before the others stay on one core
  CompareJpegDecoding(jpeg, rounds);
  CompareJpegEncoding(planes, rounds);
  CompareScaling("Resize to 640 x 360, 4:2:0", planes, AV_PIX_FMT_YUV420P, 640, 360,
                 SWS_AREA | SWS_ACCURATE_RND, rounds);
  // Each channel by itself, as the engine scales them; otherwise RGB becomes YUV with half the
  // chroma.
  CompareScaling("Resize to 640 x 360, RGB", rgb, AV_PIX_FMT_RGB24, 640, 360,
                 SWS_AREA | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT | SWS_FULL_CHR_H_INP, rounds);
  ComparePng(rgb, rounds);
}

}  // namespace
}  // namespace qx::bench

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 21;
  qx::bench::Run(argc > 2 ? argv[2] : QXTOOLS_SAMPLES_DIR "/aloe/left.jpg", std::max(rounds, 1));
}
