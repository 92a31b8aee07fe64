// Endurance: opens, reads, decodes and closes good, broken and RTSP inputs, computes cost volumes
// and runs the emulated correlation kernel with random faults, over and over.
// Usage: soak MINUTES CLIPS [RTSP_URL...]      (scripts/soak.sh provides all of it)
//
// After each minute everything is at rest for a moment and one line tells what the process holds.
// Ends with the first, the median and the last line, early after Ctrl-C. Exit status 1 when
// something has grown after the warm-up or a result was wrong.
#include <glog/logging.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/process_samples.h"
#include "qx_utils/ffmpeg_handles.h"
#include "qxtools/annexb_filter.h"
#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/ffmpeg_video_decoder.h"
#include "tests/testing/fpga_runs.h"

namespace {

using qx::bench::Judge;
using qx::bench::Sample;
using qx::bench::TakeSample;
using qx::utils::ffmpeg::FfmpegDecoder;
using qx::utils::image::StereoMaps;
using qx::utils::image::Way;
using qx::utils::video::AnnexBFilter;
using qx::utils::video::FfmpegDemuxer;
using std::chrono::steady_clock;
using FramePtr = std::shared_ptr<velkar::vision::ImageFrame>;
using Random = std::minstd_rand;
namespace board = qx::emulated_board;

volatile sig_atomic_t interrupted = 0;
std::atomic<std::uint64_t> wrong_results{0};
std::atomic<std::uint64_t> pictures{0};

void Expect(bool right, const std::string& what) {
  if (right) return;
  ++wrong_results;
  std::fprintf(stderr, "soak: wrong: %s\n", what.c_str());
}

// Reads the last sample of each plane, so that a sanitizer would see a short frame.
void LookAt(const FramePtr& frame) {
  const auto* layout = qx::utils::ffmpeg::LayoutOf(frame);
  volatile std::uint8_t last = 0;
  for (std::uint32_t i = 0; i < layout->plane_count; ++i) {
    const auto& plane = layout->planes[i];
    if (plane.rows == 0 || plane.row_bytes == 0) continue;
    last = frame->Data()[plane.offset + (plane.rows - 1) * plane.pitch + plane.row_bytes - 1];
  }
  static_cast<void>(last);
  ++pictures;
}

// Decodes what the demuxer gives, for at most `limit`. The decoder goes with frames on their way:
// sometimes with a full queue behind a slow consumer, sometimes drained, sometimes from inside its
// own callback.
std::size_t Decode(FfmpegDemuxer& demuxer, std::chrono::seconds limit, Random& random) {
  AnnexBFilter filter;
  if (filter.Init(demuxer) != 0) return 0;
  const auto holder = std::make_shared<std::shared_ptr<FfmpegDecoder>>();
  const auto decoder = *holder = qx::utils::ffmpeg::CreateFfmpegDecoder();
  Expect(decoder->Init() == 0, "the decoder does not open");
  const bool slow = random() % 8 == 0;
  decoder->SetCallback([slow, holder](const FramePtr& frame, void* release) {
    if (slow) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    LookAt(frame);
    if (release != nullptr) holder->reset();
  });
  std::size_t packets = 0;
  for (const auto end = steady_clock::now() + limit; steady_clock::now() < end; ++packets) {
    const auto packet = demuxer.ReadFrame();
    if (packet == nullptr) break;
    decoder->SendFrame(filter.Filter(packet), nullptr);
  }
  const auto drain = std::make_shared<qx::utils::video::StreamPacket>();
  if (random() % 2 == 0) {
    while (decoder->SendFrame(drain, holder.get()) == qx::utils::ffmpeg::kDecodeOk) continue;
  }
  decoder->SetCallback(nullptr);  // it owns the decoder
  return packets;
}

// Local files: good ones, and left.mp4, .mkv, .ts and .h264 cut or with flipped bytes, and noise.
class Files {
 public:
  explicit Files(std::string clips) : clips_(std::move(clips) + "/") {
    const char* folder = std::getenv("TMPDIR");
    scratch_ = std::string(folder != nullptr ? folder : "/tmp") + "/qxtools-soak-" +
               std::to_string(getpid()) + ".bin";
    for (const char* name : {"left.mp4", "left.mkv", "left.ts", "left.h264"}) {
      std::ifstream file(clips_ + name, std::ios::binary);
      contents_.emplace_back(std::istreambuf_iterator<char>(file),
                             std::istreambuf_iterator<char>());
    }
  }
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;
  ~Files() { std::remove(scratch_.c_str()); }

  bool Readable() const { return !contents_.back().empty(); }

  void Good(Random& random) {
    static constexpr std::array<const char*, 8> kNames = {
        "left.mp4",        "left.mkv",       "bframes.ts",      "baseline.h264",
        "interlaced.h264", "full_range.mp4", "audio_first.mp4", "size_change.h264"};
    const char* name = kNames[random() % kNames.size()];
    FfmpegDemuxer demuxer;
    Expect(demuxer.Open(clips_ + name, {}) == 0, std::string(name) + " does not open");
    Expect(Decode(demuxer, std::chrono::seconds(60), random) >= 24,
           std::string(name) + " is short");
  }

  void Broken(Random& random) {
    std::string bytes = contents_[random() % contents_.size()];
    const auto any = [&] { return random() % bytes.size(); };
    const auto kind = random() % 3;
    if (kind == 0) bytes.resize(any() + 1);
    for (int i = kind == 1 ? 20 : 0; i > 0; --i) bytes[any()] = static_cast<char>(random());
    if (kind == 2) std::generate(bytes.begin(), bytes.end(), std::ref(random));
    std::ofstream(scratch_, std::ios::binary) << bytes;
    FfmpegDemuxer demuxer;
    if (demuxer.Open(scratch_, {}) == 0) Decode(demuxer, std::chrono::seconds(60), random);
  }

 private:
  std::string clips_, scratch_;
  std::vector<std::string> contents_;
};

void VisitCamera(const std::string& url, Random& random) {
  FfmpegDemuxer demuxer;
  if (random() % 2 == 0) demuxer.SetTimeLimit(std::chrono::milliseconds(1000));
  if (demuxer.Open(url, {}) == 0) Decode(demuxer, std::chrono::seconds(1), random);
}

// All three ways of running the kernel, each with a random fault and then without.
void RunKernel(StereoMaps& maps, const std::vector<std::uint8_t>& expected, Random& random) {
  static const auto kNames = board::FaultNames();
  for (const Way way : qx::utils::image::kWays) {
    qx::utils::image::SetKernelTimeLimit(std::chrono::milliseconds(20));
    board::FailCall(kNames[random() % kNames.size()], 1 + static_cast<unsigned>(random() % 3));
    try {
      maps.Run(way);
    } catch (const std::exception&) {  // any is right
    }
    board::ClearFaults();
    board::EndHungRun();
    qx::utils::image::SetKernelTimeLimit(std::chrono::seconds(60));
    while (board::GetStatus().running) std::this_thread::yield();
    std::fill(maps.cost.begin(), maps.cost.end(), std::uint8_t{0});
    maps.Run(way);
    Expect(maps.cost == expected, "the emulated kernel differs from the processor");
  }
}

// Calls `job` until `end`. Returns: how often.
template <typename Job>
std::uint64_t Repeat(steady_clock::time_point end, const Job& job) {
  std::uint64_t count = 0;
  for (; steady_clock::now() < end && interrupted == 0; ++count) job(count);
  return count;
}

class Soak {
 public:
  Soak(const char* clips, std::vector<std::string> urls) : files_(clips), urls_(std::move(urls)) {}

  bool Ready() const { return files_.Readable(); }

  void RunUntil(steady_clock::time_point end) {
    const auto on_thread = [&](auto job) {
      return std::async(std::launch::async, [end, job] { return Repeat(end, job); });
    };
    auto files = on_thread([this](std::uint64_t i) {
      i % 2 == 0 ? files_.Good(file_random_) : files_.Broken(file_random_);
    });
    std::future<std::uint64_t> cameras;
    if (!urls_.empty()) {
      cameras = on_thread(
          [this](std::uint64_t i) { VisitCamera(urls_[i % urls_.size()], camera_random_); });
    }
    kernels_ += Repeat(end, [this](std::uint64_t) {
      qx::utils::image::CostVolume(large_.left.get(), large_.right.get(), large_.output.get());
      Expect(large_.cost == large_expected_, "a cost volume differs from the first");
      RunKernel(small_, small_expected_, kernel_random_);
    });
    inputs_ += files.get();
    if (cameras.valid()) visits_ += cameras.get();
  }

  void Print(long minute, const Sample& sample) const {
    std::printf("%6ld %8llu %7llu %9llu %9llu %9ld %9ld %5ld %4ld %5ld\n", minute, Count(inputs_),
                Count(visits_), Count(pictures), Count(kernels_), sample.values[0],
                sample.values[1], sample.values[2], sample.values[3], sample.values[4]);
    std::fflush(stdout);
  }

 private:
  static unsigned long long Count(std::uint64_t value) { return value; }

  Files files_;
  std::vector<std::string> urls_;
  std::uint64_t inputs_ = 0, visits_ = 0, kernels_ = 0;
  Random file_random_{1}, camera_random_{2}, kernel_random_{3};
  qx::utils::image::BoardScope board_{{8, 40, 32, 16}, false};
  StereoMaps small_{{8, 40, 32, 16}};
  StereoMaps large_{{96, 320, 32, 48}};
  std::vector<std::uint8_t> small_expected_ = small_.Expected();
  std::vector<std::uint8_t> large_expected_ = large_.Expected();
};

}  // namespace

int main(int argc, char** argv) {
  const long minutes = argc > 2 ? std::strtol(argv[1], nullptr, 10) : 0;
  if (minutes < 1) {
    std::fprintf(stderr, "usage: soak MINUTES CLIPS [RTSP_URL...]\n");
    return 2;
  }
  google::InitGoogleLogging(argv[0]);
  FLAGS_minloglevel = google::FATAL;  // faults are the point here
  av_log_set_level(AV_LOG_QUIET);
  struct sigaction action = {};
  action.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  Soak soak(argv[2], {argv + 3, argv + argc});
  if (!soak.Ready()) {
    std::fprintf(stderr, "soak: no clips in %s; samples/make-clips.sh makes them\n", argv[2]);
    return 2;
  }
  std::printf("minute   inputs cameras  pictures   kernels      heap  resident  desc  thr  maps\n");
  std::vector<Sample> samples;
  const auto begin = steady_clock::now();
  for (long minute = 1; minute <= minutes && interrupted == 0; ++minute) {
    soak.RunUntil(begin + std::chrono::minutes(minute));
    samples.push_back(TakeSample());
    soak.Print(minute, samples.back());
  }
  const bool flat = Judge(samples);
  std::printf("wrong results: %llu\n", static_cast<unsigned long long>(wrong_results));
  return flat && wrong_results == 0 ? 0 : 1;
}
