// Decoding through FfmpegDecoder against a bare send/receive loop with one copy of each picture.
// Usage: decode_bench [--threads] [--runs N] [CLIP...]
//
// Without clips it makes some of 320 x 240, 1280 x 720 and 1920 x 1080 with the ffmpeg command and
// x264. The ways take turns of 25 packets each, which lie in memory, over the whole clip and N
// times. Each keeps its decoder throughout: starting one is not compared.
//   reused    avcodec_send_packet on FFmpeg's own packets, avcodec_receive_frame, and one copy of
//             the picture, row by row, into one buffer: the rival
//   new       the same, into a new buffer for each picture
//   drop      FfmpegDecoder, with a callback that drops each frame
//   hold      the same, with a callback that holds the last eight
// and with --threads
//   slices    drop, with two threads for the slices of a picture
//   pictures  drop, with two threads for a picture each
// Prints for each way the medians over its turns of the time and of the processor time, and of
// their ratios to the rival's turn of the same round.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/interleaved.h"
#include "qx_utils/ffmpeg_handles.h"
#include "qxtools/ffmpeg_video_decoder.h"

namespace {

namespace ffmpeg = qx::utils::ffmpeg;
using qx::utils::internal::FfmpegPtr;
using Packets = std::vector<FfmpegPtr<AVPacket>>;

constexpr std::size_t kTurn = 25;  // packets

Packets ReadPackets(const std::string& path) {
  AVFormatContext* opened = nullptr;
  if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0) return {};
  const FfmpegPtr<AVFormatContext> input(opened);
  Packets packets;
  for (;;) {
    FfmpegPtr<AVPacket> packet(av_packet_alloc());
    if (av_read_frame(opened, packet.get()) < 0) return packets;
    packets.push_back(std::move(packet));
  }
}

// One way of decoding.
class Way {
 public:
  explicit Way(const char* name) : name_(name) {}
  virtual ~Way() = default;
  virtual void Decode(const AVPacket& packet) = 0;
  virtual void Finish() {}  // what the turn has begun

  // The next packets of `packets`, from the first on again after the last.
  void TakeTurn(const Packets& packets) {
    const std::size_t end = std::min(next_ + kTurn, packets.size());
    for (std::size_t i = next_; i < end; ++i) Decode(*packets[i]);
    next_ = end < packets.size() ? end : 0;
    Finish();
  }
  const char* name() const { return name_; }
  std::size_t pictures() const { return pictures_; }

 protected:
  std::size_t pictures_ = 0;

 private:
  const char* name_;
  std::size_t next_ = 0;  // packet
};

class Bare : public Way {
 public:
  Bare(const char* name, bool reuse) : Way(name), reuse_(reuse) {
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    context_.reset(avcodec_alloc_context3(codec));
    if (avcodec_open2(context_.get(), codec, nullptr) < 0) std::abort();
  }
  void Decode(const AVPacket& packet) override {
    avcodec_send_packet(context_.get(), &packet);
    while (avcodec_receive_frame(context_.get(), picture_.get()) == 0) {
      Copy(*picture_);
      ++pictures_;
    }
  }

 private:
  void Copy(const AVFrame& picture) {
    const int bytes = picture.height * picture.linesize[0] +
                      picture.height / 2 * (picture.linesize[1] + picture.linesize[2]);
    if (!reuse_ || copy_ == nullptr) copy_.reset(new std::uint8_t[static_cast<std::size_t>(bytes)]);
    std::uint8_t* to = copy_.get();
    for (int plane = 0; plane < 3; ++plane) {
      const int shift = plane == 0 ? 0 : 1;
      for (int row = 0; row < picture.height >> shift; ++row, to += picture.linesize[plane]) {
        std::memcpy(to, picture.data[plane] + row * picture.linesize[plane],
                    static_cast<std::size_t>(picture.width >> shift));
      }
    }
  }

  const bool reuse_;
  FfmpegPtr<AVCodecContext> context_;
  FfmpegPtr<AVFrame> picture_{av_frame_alloc()};
  std::unique_ptr<std::uint8_t[]> copy_;
};

class Decoder : public Way {
 public:
  Decoder(const char* name, std::size_t hold, ffmpeg::DecodeThreads threads)
      : Way(name), decoder_(ffmpeg::CreateFfmpegDecoder()) {
    decoder_->SetThreads(threads, 2);
    if (decoder_->Init() != 0) std::abort();
    decoder_->SetCallback(
        [this, hold](std::shared_ptr<velkar::vision::ImageFrame> frame, void* /*user_data*/) {
          ++pictures_;
          held_.push_back(std::move(frame));
          if (held_.size() > hold) held_.pop_front();
        });
  }
  void Decode(const AVPacket& packet) override {
    const auto stream_packet = std::make_shared<qx::utils::video::StreamPacket>();
    stream_packet->data = packet.data;
    stream_packet->size = static_cast<std::uint64_t>(packet.size);
    decoder_->SendFrame(stream_packet, nullptr);
  }
  void Finish() override { decoder_->WaitUntilDelivered(); }

 private:
  std::deque<std::shared_ptr<velkar::vision::ImageFrame>> held_;
  std::shared_ptr<ffmpeg::FfmpegDecoder> decoder_;  // last: its callback uses the rest
};

std::vector<std::unique_ptr<Way>> Ways(bool threads) {
  std::vector<std::unique_ptr<Way>> ways;
  ways.push_back(std::make_unique<Bare>("reused", true));
  ways.push_back(std::make_unique<Bare>("new", false));
  ways.push_back(std::make_unique<Decoder>("drop", 0, ffmpeg::kDecodeOneThread));
  ways.push_back(std::make_unique<Decoder>("hold", 8, ffmpeg::kDecodeOneThread));
  if (!threads) return ways;
  ways.push_back(std::make_unique<Decoder>("slices", 0, ffmpeg::kDecodeSliceThreads));
  ways.push_back(std::make_unique<Decoder>("pictures", 0, ffmpeg::kDecodePictureThreads));
  return ways;
}

// Returns: false, with a line, when there is nothing to decode or the ways lose pictures.
bool Compare(const std::string& clip, bool threads, int runs) {
  const Packets packets = ReadPackets(clip);
  const auto ways = Ways(threads);
  if (packets.empty()) {
    std::fprintf(stderr, "decode_bench: %s: nothing to decode\n", clip.c_str());
    return false;
  }
  std::vector<qx::bench::Contender> contenders;
  contenders.reserve(ways.size());
  for (const auto& way : ways) {
    contenders.push_back({way->name(), [&] { way->TakeTurn(packets); }});
  }
  qx::bench::Rounds rounds;
  rounds.warm_up = static_cast<int>((packets.size() + kTurn - 1) / kTurn);
  rounds.count = runs * rounds.warm_up;
  rounds.one_core = false;
  const std::vector<qx::bench::Times> times = qx::bench::RunInterleaved(contenders, rounds);
  std::printf("%s: %zu packets, %d runs\n%-10s %9s %7s %14s %7s %9s\n",
              std::filesystem::path(clip).filename().c_str(), packets.size(), runs, "way",
              "time ms", "ratio", "processor ms", "ratio", "pictures");
  bool ok = ways.front()->pictures() > 0;
  for (std::size_t i = 0; i < ways.size(); ++i) {
    const qx::bench::Times& rival = times.front();
    std::printf("%-10s %9.2f %7.3f %14.2f %7.3f %9zu\n", ways[i]->name(),
                1e3 * qx::bench::Median(times[i].elapsed),
                qx::bench::MedianRatio(times[i].elapsed, rival.elapsed),
                1e3 * qx::bench::Median(times[i].processor),
                qx::bench::MedianRatio(times[i].processor, rival.processor), ways[i]->pictures());
    ok = ok && ways[i]->pictures() + 1 >= ways.front()->pictures();  // one may be under way
  }
  if (!ok) std::fprintf(stderr, "decode_bench: %s: pictures are missing\n", clip.c_str());
  return ok;
}

// Returns: the clips made in `folder`; fewer when ffmpeg failed.
std::vector<std::string> MakeClips(const std::filesystem::path& folder) {
  const struct {
    const char *name, *size, *options;
  } clips[] = {{"320x240.h264", "320x240", ""},
               {"1280x720.h264", "1280x720", ""},
               {"1920x1080.h264", "1920x1080", ""},
               {"1920x1080-4-slices.h264", "1920x1080", "-slices 4"}};
  std::vector<std::string> made;
  for (const auto& clip : clips) {
    const std::string path = folder / clip.name;
    const std::string command = std::string("ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=") +
                                clip.size + ":rate=25 -frames:v 250 -pix_fmt yuv420p " +
                                "-c:v libx264 -preset veryfast " + clip.options + " " + path;
    if (std::system(command.c_str()) == 0) made.push_back(path);
  }
  return made;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 9;
  bool threads = false;
  std::vector<std::string> clips;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
      runs = std::max(1, std::atoi(argv[++i]));
    } else if (std::strcmp(argv[i], "--threads") == 0) {
      threads = true;
    } else {
      clips.emplace_back(argv[i]);
    }
  }
  std::string folder = std::filesystem::temp_directory_path() / "decode_bench-XXXXXX";
  if (clips.empty() && mkdtemp(folder.data()) != nullptr) clips = MakeClips(folder);
  bool ok = !clips.empty();
  for (const std::string& clip : clips) ok = Compare(clip, threads, runs) && ok;
  std::filesystem::remove_all(folder);
  return ok ? 0 : 1;
}
