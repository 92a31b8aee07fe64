// Matches the first pictures of two videos and prints how far away things are: stereo LEFT RIGHT
#include <qxtools/annexb_filter.h>
#include <qxtools/ffmpeg_demuxer.h>
#include <qxtools/ffmpeg_video_decoder.h>
#include <qxtools/stereo_matcher.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>

namespace ffmpeg = qx::utils::ffmpeg;
namespace stereo = qx::utils::stereo;
namespace video = qx::utils::video;
using Frame = std::shared_ptr<velkar::vision::ImageFrame>;

static Frame FirstPicture(const char* input) {
  video::FfmpegDemuxer demuxer;
  video::AnnexBFilter filter;
  Frame first;
  const auto decoder = ffmpeg::CreateFfmpegDecoder();
  if (demuxer.Open(input, {}) != 0 || filter.Init(demuxer) != 0 || decoder->Init() != 0) return {};
  decoder->SetCallback([&first](const Frame& frame, void* /*user_data*/) {
    if (first == nullptr) first = frame;
  });
  auto status = ffmpeg::kDecodeNoPicture;
  while (status != ffmpeg::kDecodeOk) {
    const auto packet = demuxer.ReadFrame();
    if (packet == nullptr) break;
    status = static_cast<ffmpeg::DecodeStatus>(decoder->SendFrame(filter.Filter(packet), nullptr));
  }
  decoder->Drain(nullptr);  // the picture may have been held back
  decoder->WaitUntilDelivered();
  return first;
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const Frame left = FirstPicture(argv[1]), right = FirstPicture(argv[2]);
  // Of the cameras that took the pictures: focal length in pixels, and their distance.
  constexpr double kFocalLength = 800, kBaseline = 0.12;

  stereo::StereoOptions options;
  options.disparities = 64;
  options.confidence = true;
  stereo::StereoMatcher matcher(options);  // keep it: the next pair of this size allocates little
  stereo::StereoResult result;
  try {
    result = matcher.Match(left, right);  // reads the luma of the decoder's frames in place
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());  // for example: left: the frame is null
    return 1;
  }

  const auto* disparity = reinterpret_cast<const std::uint16_t*>(result.disparity->Data());
  const std::uint32_t width = result.disparity->Width(), height = result.disparity->Height();
  for (std::uint32_t y = height / 8; y < height; y += height / 4) {
    for (std::uint32_t x = width / 8; x < width; x += width / 4) {
      const std::uint16_t value = disparity[y * width + x];
      const double pixels = value * static_cast<double>(result.disparity->scale);
      if (value == stereo::kMissingDisparity || value == 0) {
        std::printf("      -          ");  // hidden from one camera, or infinitely far away
      } else {
        std::printf("%7.2f m (%2.0f %%) ", kFocalLength * kBaseline / pixels,
                    result.confidence->Data()[y * width + x] / 2.55);
      }
    }
    std::printf("\n");
  }
}
