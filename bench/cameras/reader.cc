// Reads a camera that repeats a raw file, and compares what arrives with the file.
//
// usage: camera_reader read WHO URL FILE [--pictures N] [--seconds S] [--rate R] [--limit MS]
//                                         [--open-limit MS] [--cancel-every MS] [--loose]
//        camera_reader endure MINUTES FILE RATE URL... [--loose URL...]
//
// read    WHO is `library` (FfmpegDemuxer), `bare` (a loop over FFmpeg's own calls with the same
//         options), `both` at the same time, or `reconnecting` (ReconnectingDemuxer). Ends after N
//         pictures or S seconds and prints one line of JSON for each reader. --limit and
//         --open-limit: SetTimeLimit() after opening and before; --cancel-every: Cancel(), and
//         ClearCancel() after 20 or 120 ms; --loose: only slices are compared.
// endure  reads all cameras through ReconnectingDemuxer, and prints every minute what the process
//         holds. Ends with a summary of each camera, and status 1 if something grew or is wrong.
#include <glog/logging.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/cameras/clip.h"
#include "bench/process_samples.h"
#include "qx_utils/ffmpeg_handles.h"
#include "qx_utils/video/ffmpeg_options.h"
#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/reconnecting_demuxer.h"

namespace {

using qx::bench::CameraClip;
using qx::bench::Comparison;
using qx::utils::video::DemuxerFault;
using qx::utils::video::FfmpegDemuxer;
using qx::utils::video::PacketTimesOf;
using qx::utils::video::ReconnectingDemuxer;
using qx::utils::video::StreamPacket;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

volatile sig_atomic_t interrupted = 0;

double MillisecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

const char* NameOf(DemuxerFault fault) {
  static constexpr const char* kNames[] = {"none",
                                           "refused",
                                           "timed out",
                                           "closed by peer",
                                           "end of stream",
                                           "damaged",
                                           "cancelled",
                                           "no video",
                                           "not open",
                                           "other",
                                           "unreachable",
                                           "lost",
                                           "unsupported transport"};
  return kNames[static_cast<int>(fault)];
}

struct Options {
  std::string url;
  std::size_t pictures = 50;
  double seconds = 30;
  double rate = 25;
  milliseconds limit{0};
  milliseconds open_limit{0};
  milliseconds cancel_every{0};
};

void Compare(Comparison& comparison, const std::shared_ptr<StreamPacket>& packet) {
  const auto times = PacketTimesOf(packet);
  const double seconds =
      times->presentation == qx::utils::video::kNoTime
          ? NAN
          : static_cast<double>(times->presentation) * times->time_base_num / times->time_base_den;
  comparison.Take(packet->data, packet->size, seconds, times->key, times->discontinuity);
}

// One way of reading: opens, and takes one packet at a time.
class Reader {
 public:
  virtual ~Reader() = default;
  virtual bool Open(const Options& options) = 0;
  // Returns: whether a packet came; it has been compared.
  virtual bool Read(Comparison& comparison) = 0;
  virtual DemuxerFault fault() const { return DemuxerFault::kNone; }
  virtual void Cancel() {}
  virtual void ClearCancel() {}
};

template <typename Demuxer>
class DemuxerReader : public Reader {
 public:
  bool Read(Comparison& comparison) override {
    const auto packet = demuxer_.ReadFrame();
    if (packet) Compare(comparison, packet);
    return packet != nullptr;
  }
  DemuxerFault fault() const override { return demuxer_.LastFault(); }
  void Cancel() override { demuxer_.Cancel(); }
  void ClearCancel() override { demuxer_.ClearCancel(); }

 protected:
  Demuxer demuxer_;
};

class LibraryReader : public DemuxerReader<FfmpegDemuxer> {
 public:
  bool Open(const Options& options) override {
    demuxer_.SetTimeLimit(options.open_limit);
    const bool open = demuxer_.Open(options.url, {}) == 0;
    demuxer_.SetTimeLimit(options.limit);
    return open;
  }
};

class ReconnectingReader : public DemuxerReader<ReconnectingDemuxer> {
 public:
  bool Open(const Options& options) override {
    demuxer_.Open(options.url, {});
    return true;  // Read() keeps trying
  }
};

// What anyone would write over FFmpeg, with the options that the library gives.
class BareReader : public Reader {
 public:
  bool Open(const Options& options) override {
    AVFormatContext* input = nullptr;
    AVDictionary* settings = qx::utils::internal::InputOptions(options.url).release();
    const int code = avformat_open_input(&input, options.url.c_str(), nullptr, &settings);
    av_dict_free(&settings);
    if (code != 0) return false;
    input_.reset(input);
    if (avformat_find_stream_info(input, nullptr) < 0) return false;
    stream_ = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    return stream_ >= 0;
  }
  bool Read(Comparison& comparison) override {
    for (int failures = 0; failures < 3;) {
      if (av_read_frame(input_.get(), packet_.get()) != 0) {
        ++failures;
        std::this_thread::sleep_for(milliseconds(1));
        continue;
      }
      const bool video = packet_->stream_index == stream_;
      if (video) {
        const auto pts = packet_->pts;
        const double unit = av_q2d(input_->streams[stream_]->time_base);
        comparison.Take(packet_->data, static_cast<std::size_t>(packet_->size),
                        pts == AV_NOPTS_VALUE ? NAN : static_cast<double>(pts) * unit,
                        (packet_->flags & AV_PKT_FLAG_KEY) != 0, false);
      }
      av_packet_unref(packet_.get());
      if (video) return true;
    }
    return false;
  }

 private:
  qx::utils::internal::FfmpegPtr<AVFormatContext> input_;
  qx::utils::internal::FfmpegPtr<AVPacket> packet_{av_packet_alloc()};
  int stream_ = -1;
};

struct Run {
  double open_ms = 0, first_ms = 0, longest_ms = 0, cancel_ms = 0, all_ms = 0;
  std::size_t empty = 0;  // calls without a packet
  std::size_t cancels = 0;
  std::size_t wrong_faults = 0;  // calls that gave a packet and a fault
  bool open = false;
  std::string fault = "none";  // of the last such call
};

// Cancels a reader now and then from a thread of its own.
class Canceller {
 public:
  Canceller(Reader& reader, milliseconds every) : reader_(reader), every_(every) {}
  Canceller(const Canceller&) = delete;
  Canceller& operator=(const Canceller&) = delete;
  ~Canceller() { Stop(); }

  void Start() {
    if (every_.count() > 0 && !thread_.joinable()) thread_ = std::thread([this] { Work(); });
  }
  void Stop() {
    end_ = true;
    if (thread_.joinable()) thread_.join();
  }
  // Returns: the time since the last Cancel(), after ClearCancel() has followed.
  double WaitUntilCleared() {
    const double ms = static_cast<double>((Clock::now().time_since_epoch().count() - began_)) / 1e6;
    while (active_) std::this_thread::sleep_for(milliseconds(1));
    return ms;
  }

 private:
  void Work() {
    while (!end_) {
      std::this_thread::sleep_for(every_);
      began_ = Clock::now().time_since_epoch().count();
      active_ = true;
      reader_.Cancel();
      // FFmpeg asks every 0.1 s while nothing arrives: one is always noticed, the next one at
      // times.
      std::this_thread::sleep_for(milliseconds(long_ ? 120 : 20));
      long_ = !long_;
      reader_.ClearCancel();
      active_ = false;
    }
  }

  Reader& reader_;
  const milliseconds every_;
  std::thread thread_;
  bool long_ = true;
  std::atomic<bool> end_{false}, active_{false};
  std::atomic<Clock::rep> began_{0};
};

Run Follow(Reader& reader, const Options& options, Comparison& comparison) {
  Run run;
  Canceller canceller(reader, options.cancel_every);
  const auto begin = Clock::now();
  run.open = reader.Open(options);
  run.open_ms = MillisecondsSince(begin);
  if (!run.open) run.fault = NameOf(reader.fault());
  while (run.open && comparison.packets < options.pictures &&
         MillisecondsSince(begin) < options.seconds * 1000) {
    const auto call = Clock::now();
    const bool packet = reader.Read(comparison);
    run.longest_ms = std::max(run.longest_ms, MillisecondsSince(call));
    if (packet && comparison.packets == 1) run.first_ms = MillisecondsSince(begin);
    if (packet) canceller.Start();
    if (packet && reader.fault() != DemuxerFault::kNone) ++run.wrong_faults;
    if (packet) continue;
    ++run.empty;
    run.fault = NameOf(reader.fault());
    if (reader.fault() != DemuxerFault::kCancelled) continue;
    ++run.cancels;
    run.cancel_ms = std::max(run.cancel_ms, canceller.WaitUntilCleared());
  }
  canceller.Stop();
  run.all_ms = MillisecondsSince(begin);
  return run;
}

void Print(const char* who, const Run& run, const Comparison& read) {
  std::printf(
      "{\"who\": \"%s\", \"open\": %s, \"fault\": \"%s\", \"packets\": %zu, \"different\": %zu, "
      "\"missing\": %zu, \"gaps\": %zu, \"cut\": %zu, \"wrong_keys\": %zu, \"without_time\": %zu, "
      "\"worst_time_ms\": %.3f, \"open_ms\": %.1f, \"first_ms\": %.1f, \"longest_ms\": %.1f, "
      "\"wrong_faults\": %zu, \"empty\": %zu, \"cancels\": %zu, \"cancel_ms\": %.1f, \"all_ms\": "
      "%.1f}\n",
      who, run.open ? "true" : "false", run.fault.c_str(), read.packets, read.different,
      read.missing, read.gaps, read.cut, read.wrong_keys, read.without_time, read.worst_time * 1e3,
      run.open_ms, run.first_ms, run.longest_ms, run.wrong_faults, run.empty, run.cancels,
      run.cancel_ms, run.all_ms);
}

template <typename Kind>
void ReadWith(const char* who, const Options& options, const CameraClip& clip) {
  Kind reader;
  Comparison comparison(clip, options.rate);
  const Run run = Follow(reader, options, comparison);
  Print(who, run, comparison);
}

int ReadCommand(int argc, char** argv) {
  const std::string who = argv[2];
  Options options;
  options.url = argv[3];
  bool loose = false;
  for (int i = 5; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--loose") loose = true;
    if (name == "--loose" || i + 1 == argc) continue;
    const double value = std::strtod(argv[++i], nullptr);
    if (name == "--pictures") options.pictures = static_cast<std::size_t>(value);
    if (name == "--seconds") options.seconds = value;
    if (name == "--rate") options.rate = value;
    if (name == "--limit") options.limit = milliseconds(static_cast<int>(value));
    if (name == "--open-limit") options.open_limit = milliseconds(static_cast<int>(value));
    if (name == "--cancel-every") options.cancel_every = milliseconds(static_cast<int>(value));
  }
  const CameraClip clip(argv[4], loose);
  auto bare = std::async(std::launch::async, [&] {
    if (who == "bare" || who == "both") ReadWith<BareReader>("bare", options, clip);
  });
  if (who == "library" || who == "both") ReadWith<LibraryReader>("library", options, clip);
  if (who == "reconnecting") ReadWith<ReconnectingReader>("reconnecting", options, clip);
  bare.get();
  return 0;
}

// One camera of an endurance run, read on a thread of its own.
class EnduringCamera {
 public:
  EnduringCamera(std::string url, const CameraClip& clip, double rate)
      : url_(std::move(url)), comparison_(clip, rate) {
    reader_.SetStateCallback([this](const qx::utils::video::ConnectionChange& change) {
      if (change.state == qx::utils::video::ConnectionState::kOpen) ++connections_;
      if (change.failures == 0 && change.reason != DemuxerFault::kNone) {
        silence_ms_ = std::max(silence_ms_, MillisecondsSince(last_packet_));
      }
    });
    thread_ = std::thread([this] { Work(); });
  }
  EnduringCamera(const EnduringCamera&) = delete;
  EnduringCamera& operator=(const EnduringCamera&) = delete;
  ~EnduringCamera() { Stop(); }

  void Stop() {
    reader_.Cancel();
    if (thread_.joinable()) thread_.join();
  }
  std::size_t packets() const { return packets_; }
  std::size_t connections() const { return connections_; }

  // Call after Stop(). Returns: whether all is right.
  bool Report() const {
    const Comparison& read = comparison_;
    std::printf(
        "%s: %zu packets in %zu connections, %zu different, %zu missing, %zu marked gaps, "
        "%zu connections that do not begin with the first picture, %zu pictures cut off by a loss, "
        "a loss at most %.0f ms after the last picture, %zu without a time, times within %.3f ms\n",
        url_.c_str(), read.packets, connections_.load(), read.different, read.missing, read.gaps,
        read.late_starts, read.cut, silence_ms_, read.without_time, read.worst_time * 1e3);
    return read.packets > 0 && read.different + read.missing + read.late_starts == 0 &&
           read.gaps + 1 == connections_ && read.without_time <= connections_;
  }

 private:
  void Work() {
    reader_.Open(url_, {});
    while (const auto packet = reader_.ReadFrame()) {
      Compare(comparison_, packet);
      last_packet_ = Clock::now();
      ++packets_;
    }
  }

  const std::string url_;
  Comparison comparison_;
  ReconnectingDemuxer reader_;
  std::atomic<std::size_t> packets_{0}, connections_{0};
  Clock::time_point last_packet_;
  double silence_ms_ = 0;  // before a loss was noticed
  std::thread thread_;
};

int EndureCommand(int argc, char** argv) {
  const long minutes = std::strtol(argv[2], nullptr, 10);
  const CameraClip strict(argv[3], false), loose(argv[3], true);
  const CameraClip* clip = &strict;
  const double rate = std::strtod(argv[4], nullptr);
  std::vector<std::unique_ptr<EnduringCamera>> cameras;
  for (int i = 5; i < argc; ++i) {
    if (std::string(argv[i]) == "--loose") {
      clip = &loose;
    } else {
      cameras.push_back(std::make_unique<EnduringCamera>(argv[i], *clip, rate));
    }
  }
  std::printf("minute  packets  connections     heap  resident  desc  thr  maps\n");
  std::vector<qx::bench::Sample> samples;
  const auto begin = Clock::now();
  for (long minute = 1; minute <= minutes && interrupted == 0; ++minute) {
    const auto end = begin + std::chrono::minutes(minute);
    while (Clock::now() < end && interrupted == 0) std::this_thread::sleep_for(milliseconds(200));
    samples.push_back(qx::bench::TakeSample());
    std::size_t packets = 0, connections = 0;
    for (const auto& camera : cameras) packets += camera->packets();
    for (const auto& camera : cameras) connections += camera->connections();
    const auto& held = samples.back().values;
    std::printf("%6ld %8zu %12zu %8ld %9ld %5ld %4ld %5ld\n", minute, packets, connections, held[0],
                held[1], held[2], held[3], held[4]);
    std::fflush(stdout);
  }
  bool right = qx::bench::Judge(samples);
  for (const auto& camera : cameras) camera->Stop();
  for (const auto& camera : cameras) right = camera->Report() && right;
  return right ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  google::InitGoogleLogging(argv[0]);
  FLAGS_minloglevel = std::getenv("CAMERA_READER_LOG") != nullptr ? 0 : google::FATAL;
  FLAGS_logtostderr = true;
  av_log_set_level(AV_LOG_QUIET);
  struct sigaction action = {};
  action.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  const std::string command = argc > 4 ? argv[1] : "";
  if (command == "read") return ReadCommand(argc, argv);
  if (command == "endure") return EndureCommand(argc, argv);
  std::fprintf(stderr,
               "usage: camera_reader read WHO URL FILE [OPTION...]\n"
               "       camera_reader endure MINUTES FILE RATE URL... [--loose URL...]\n");
  return 2;
}
