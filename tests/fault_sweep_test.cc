// Every allocation on the calling thread, and every call of FFmpeg's that can report failure, fails
// in its turn. Memory that is lost on the way is seen by the address sanitizer's build.
#include <turbojpeg.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <new>
#include <thread>
#include <utility>

extern "C" {
#include <libswscale/swscale.h>
}

#include "qx_utils/ffmpeg_handles.h"
#include "qxtools/ffmpeg_media_proc.h"
#include "tests/testing/decoding.h"
#include "tests/testing/fpga_runs.h"
#include "tests/testing/stereo_frames.h"
#include "tests/testing/test.h"

namespace {

// What is to fail: use number `nth` of `name`, and all later ones when `for_good`.
struct Fault {
  const char* name = "";
  long nth = 0;
  bool for_good = false;
  bool happened = false;
};
thread_local Fault fault;
constexpr char kNew[] = "operator new";
constexpr char kEmptyPacket[] = "empty packet";

bool FailsNow(const char* name) {
  if (fault.nth == 0 || std::strcmp(fault.name, name) != 0 || --fault.nth > 0) return false;
  fault.nth = fault.for_good ? 1 : 0;
  fault.happened = true;
  return true;
}

void* Allocate(std::size_t bytes) {
  void* const block = FailsNow(kNew) ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
  return block != nullptr ? block : throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t bytes) { return Allocate(bytes); }
void* operator new[](std::size_t bytes) { return Allocate(bytes); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

// The linker sends the library's own calls here (-Wl,--wrap), and nobody else's.
// NOLINTBEGIN(bugprone-reserved-identifier,bugprone-macro-parentheses): names are the linker's.
#define QXTOOLS_WRAP(name, failure, parameters, arguments)                                \
  extern "C" decltype(name) __real_##name, __wrap_##name;                                 \
  auto __wrap_##name parameters->decltype(name arguments) {                               \
    return FailsNow(#name) ? decltype(name arguments){failure} : __real_##name arguments; \
  }
namespace internal = qx::utils::internal;
using Bsf = AVBSFContext;
using Codec = AVCodecContext;
using Filter = AVBitStreamFilter;
using InputFormat = decltype(AVFormatContext::iformat);
using Options = AVDictionary**;
constexpr int kFailure = AVERROR(ENOMEM);
QXTOOLS_WRAP(avformat_alloc_context, nullptr, (), ())
QXTOOLS_WRAP(avformat_find_stream_info, kFailure, (AVFormatContext * c, Options o), (c, o))
QXTOOLS_WRAP(avcodec_find_decoder, nullptr, (AVCodecID id), (id))
QXTOOLS_WRAP(avcodec_alloc_context3, nullptr, (const AVCodec* c), (c))
QXTOOLS_WRAP(avcodec_open2, kFailure, (Codec * x, const AVCodec* c, Options o), (x, c, o))
QXTOOLS_WRAP(avcodec_send_packet, kFailure, (Codec * x, const AVPacket* p), (x, p))
QXTOOLS_WRAP(avcodec_receive_frame, kFailure, (Codec * x, AVFrame* f), (x, f))
QXTOOLS_WRAP(av_frame_alloc, nullptr, (), ())
QXTOOLS_WRAP(av_bsf_get_by_name, nullptr, (const char* name), (name))
QXTOOLS_WRAP(av_bsf_alloc, kFailure, (const Filter* f, Bsf** b), (f, b))
QXTOOLS_WRAP(av_bsf_init, kFailure, (Bsf * b), (b))
QXTOOLS_WRAP(av_bsf_send_packet, kFailure, (Bsf * b, AVPacket* p), (b, p))
QXTOOLS_WRAP(av_bsf_receive_packet, kFailure, (Bsf * b, AVPacket* p), (b, p))
QXTOOLS_WRAP(av_packet_ref, kFailure, (AVPacket * a, const AVPacket* b), (a, b))
QXTOOLS_WRAP(av_packet_alloc, nullptr, (), ())
QXTOOLS_WRAP(av_new_packet, kFailure, (AVPacket * p, int n), (p, n))
QXTOOLS_WRAP(avcodec_find_encoder, nullptr, (AVCodecID id), (id))
QXTOOLS_WRAP(avcodec_send_frame, kFailure, (Codec * x, const AVFrame* f), (x, f))
QXTOOLS_WRAP(avcodec_receive_packet, kFailure, (Codec * x, AVPacket* p), (x, p))
QXTOOLS_WRAP(av_frame_get_buffer, kFailure, (AVFrame * f, int align), (f, align))
QXTOOLS_WRAP(av_buffer_allocz, nullptr, (internal::BufferSize n), (n))
QXTOOLS_WRAP(av_buffer_create, nullptr,
             (std::uint8_t * d, internal::BufferSize n, void (*f)(void*, std::uint8_t*), void* o,
              int flags),
             (d, n, f, o, flags))
QXTOOLS_WRAP(sws_scale, kFailure,
             (SwsContext * s, const std::uint8_t* const f[], const int fp[], int y, int h,
              std::uint8_t* const t[], const int tp[]),
             (s, f, fp, y, h, t, tp))
QXTOOLS_WRAP(sws_getContext, nullptr,
             (int w, int h, AVPixelFormat f, int tw, int th, AVPixelFormat tf, int flags,
              SwsFilter* a, SwsFilter* b, const double* p),
             (w, h, f, tw, th, tf, flags, a, b, p))
QXTOOLS_WRAP(tjInitCompress, nullptr, (), ())
QXTOOLS_WRAP(tjCompress2, kFailure,
             (tjhandle h, const unsigned char* p, int w, int pitch, int rows, int format,
              unsigned char** f, unsigned long* n, int s, int q, int flags),
             (h, p, w, pitch, rows, format, f, n, s, q, flags))
QXTOOLS_WRAP(tjCompressFromYUVPlanes, kFailure,
             (tjhandle h, const unsigned char** p, int w, const int* pitches, int rows, int s,
              unsigned char** f, unsigned long* n, int q, int flags),
             (h, p, w, pitches, rows, s, f, n, q, flags))
QXTOOLS_WRAP(avformat_open_input, (avformat_free_context(*c), *c = nullptr, kFailure),
             (AVFormatContext * *c, const char* url, InputFormat f, Options o), (c, url, f, o))
extern "C" decltype(av_read_frame) __real_av_read_frame, __wrap_av_read_frame;
int __wrap_av_read_frame(AVFormatContext* context, AVPacket* packet) {
  if (FailsNow("av_read_frame")) return kFailure;
  if (!FailsNow(kEmptyPacket)) return __real_av_read_frame(context, packet);
  packet->stream_index = 0;
  return 0;
}
// NOLINTEND(bugprone-reserved-identifier,bugprone-macro-parentheses)

namespace qx::utils {
namespace {

using image::StereoMaps;

// From the clip to the callback. Everything in it is used again by the next Run().
struct Pipeline {
  video::FfmpegDemuxer demuxer;
  video::AnnexBFilter filter;
  std::atomic<int> delivered{0};
  std::shared_ptr<ffmpeg::FfmpegDecoder> decoder;

  // Returns: the first step that failed, with its status; "" when none did. `sent` counts frames.
  std::string Run(int& sent) {
    delivered = 0;
    if (demuxer.Open(testing::ClipPath("two_videos.mp4"), {}) != 0) return "open";
    if (filter.Init(demuxer) != 0) return "filter";
    if (decoder == nullptr) decoder = ffmpeg::CreateFfmpegDecoder();
    decoder->SetCallback([this](const testing::FramePtr&, void*) { ++delivered; });
    if (decoder->Init() != 0) return "init";
    int failure = 0;
    for (int i = 0; i < 4; ++i) {
      const auto packet = demuxer.ReadFrame();
      if (packet == nullptr) return "read";
      // -3 for a packet that the filter has lost.
      const int status = decoder->SendFrame(filter.Filter(packet), nullptr);
      if (status == ffmpeg::kDecodeOk) ++sent;
      if (status != ffmpeg::kDecodeNoPicture && failure == 0) failure = status;
    }
    return failure == 0 ? "" : "send " + std::to_string(failure);
  }

  std::string RunToEnd() {
    int sent = 0;
    std::string failure = Run(sent);
    while (delivered < sent) std::this_thread::yield();
    return failure;
  }
};

// Makes use 1, 2, 3 ... of `name` fail in `attempt`, until it has no such use; `check` follows with
// no fault in force. Returns: how many uses there were.
template <typename Attempt, typename Check>
long Sweep(const char* name, bool for_good, const Attempt& attempt, const Check& check) {
  for (long nth = 1;; ++nth) {
    SCOPED_TRACE(std::string(name) + " " + std::to_string(nth) + (for_good ? " for good" : ""));
    fault = {name, nth, for_good, false};
    bool threw = false;
    try {
      attempt();
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    const Fault used = std::exchange(fault, {});
    check(threw);
    if (!used.happened || ::testing::Test::HasFailure()) return nth - 1;
  }
}

TEST(FaultSweep, EveryAllocationFromFileToCallback) {
  Pipeline kept;
  const auto use = [&kept] { kept.RunToEnd(); };
  const auto use_again = [&kept](bool) { EXPECT_EQ(kept.RunToEnd(), ""); };
  EXPECT_GT(Sweep(kNew, false, use, use_again), 20);
  const auto destroy = [] { Pipeline().RunToEnd(); };  // while nothing can be allocated
  const auto nothing = [](bool) {};
  EXPECT_GT(Sweep(kNew, true, destroy, nothing), 20);
}

TEST(FaultSweep, EveryCallOfFfmpeg) {
  const std::array<const char*, 3> rows[] = {
      // call, where the run ends, what is said
      {"avformat_alloc_context", "open", "Open input stream FAILED: "},
      {"avformat_open_input", "open", "Open input stream FAILED: "},
      {"avformat_find_stream_info", "open", "Don't find stream information."},
      {"av_read_frame", "", " Read frame failed. ErrCode: -12"},
      {kEmptyPacket, "", "Invalid pkt.size= 0"},
      {"av_bsf_get_by_name", "filter", "FFmpeg refuses"},
      {"av_bsf_alloc", "filter", "FFmpeg refuses"},
      {"av_bsf_init", "filter", "FFmpeg refuses"},
      {"av_packet_ref", "send -3", "bytes refused, ret=-12"},
      {"av_bsf_send_packet", "send -3", "bytes refused, ret=-12"},
      {"av_bsf_receive_packet", "send -3", "bytes refused, ret=-12"},
      {"avcodec_find_decoder", "init",
       "####\\[Init:[0-9]+\\]assert failed:p_avcodec_ != NULL\nCould not open codec\n"},
      {"avcodec_alloc_context3", "init",
       "####\\[Init:[0-9]+\\]assert failed:p_avcodec_ctx_ != NULL\n"},
      {"avcodec_open2", "init", "Could not open codec\n"},
      {"avcodec_send_packet", "send -1", ""},
      {"avcodec_receive_frame", "send -1", ""},
      {"av_frame_alloc", "send -9", "####\\[SendFrame:[0-9]+\\]assert failed:ptFrame != NULL\n"},
  };
  Pipeline kept;
  for (const auto& [name, failure, message] : rows) {
    const LogCapture log;
    ::testing::internal::CaptureStdout();
    std::vector<std::string> failures;
    const auto attempt = [&] { failures.push_back(kept.RunToEnd()); };
    const auto use_again = [&kept](bool) { EXPECT_EQ(kept.RunToEnd(), ""); };
    EXPECT_GT(Sweep(name, false, attempt, use_again), 0) << name << " is never called";
    EXPECT_EQ(failures.front(), failure) << name;
    std::fflush(stdout);
    std::string said = ::testing::internal::GetCapturedStdout();
    for (const std::string& text : log.Messages(google::ERROR)) said += text + '\n';
    EXPECT_THAT(said, ::testing::ContainsRegex(message)) << name;
  }
}

TEST(FaultSweep, AFailedReadAndAnEmptyPacketCountAlike) {
  Pipeline pipeline;
  for (const char* name : {"av_read_frame", kEmptyPacket}) {
    const LogCapture log;
    fault = {name, 1, true, false};
    EXPECT_EQ(pipeline.RunToEnd(), "read");
    EXPECT_EQ(log.Messages(google::ERROR).size(), 3U) << name;
  }
  fault = {};
}

TEST(FaultSweep, APacketTakesTwoAllocationsAndNoCopy) {
  video::FfmpegDemuxer demuxer;
  ASSERT_EQ(demuxer.Open(testing::ClipPath("audio_first.mp4"), {}), 0);
  const auto read = [&demuxer] { EXPECT_NE(demuxer.ReadFrame(), nullptr); };
  EXPECT_EQ(Sweep(kNew, false, read, [](bool) {}), 2);
}

TEST(FaultSweep, EveryAllocationOfACostVolume) {
  StereoMaps maps({4, 40, 32, 16});
  const auto expected = maps.Expected();
  const auto run = [&] { image::CostVolume(maps.left.get(), maps.right.get(), maps.output.get()); };
  for (auto* volume : {&maps.cost, &maps.left_bytes}) {  // the second lies over an input
    maps.output = StereoMaps::Frame::Create(kQXPixelFormatUint8, volume->data(), 4, 40, 16);
    const auto before = *volume;
    auto after = before;
    std::copy(expected.begin(), expected.end(), after.begin());
    const auto check = [&](bool threw) {
      EXPECT_TRUE(*volume == (threw ? before : after));
      *volume = before;
      run();
      EXPECT_TRUE(*volume == after);
      *volume = before;
    };
    for (const bool for_good : {false, true}) EXPECT_GT(Sweep(kNew, for_good, run, check), 0);
  }
}

TEST(FaultSweep, AKeptStereoMatcherAllocatesItsResultsAndNothingElse) {
  const testing::FramePtr picture = testing::NewFrame(kQXPixelFormatGray8, 20, 60, 1);
  for (unsigned i = 0; i < picture->DataSize(); ++i) {
    picture->Data()[i] = static_cast<std::uint8_t>(i * i * i >> 3);
  }
  stereo::StereoOptions options;
  options.confidence = true;
  const auto match = [&](stereo::StereoMatcher& matcher) {
    return testing::BytesOf(matcher.Match(picture, picture).filled);
  };
  stereo::StereoMatcher kept(options);
  const std::string expected = match(kept);
  constexpr long kFrameBytesAndOwner = 3, kResults = 3;
  const auto use_again = [&](bool) { EXPECT_EQ(match(kept), expected); };
  const auto use = [&] { (void)kept.Match(picture, picture); };
  EXPECT_EQ(Sweep(kNew, false, use, use_again), kFrameBytesAndOwner * kResults);
  // One that is new, and again after its memory ran out.
  std::unique_ptr<stereo::StereoMatcher> fresh;
  const auto start = [&] {
    if (fresh == nullptr) fresh = std::make_unique<stereo::StereoMatcher>(options);
    (void)fresh->Match(picture, picture);
  };
  const auto finish = [&](bool) {
    EXPECT_TRUE(fresh == nullptr || match(*fresh) == expected);
    fresh.reset();
  };
  EXPECT_GT(Sweep(kNew, false, start, finish), 12);
}

// An operation of the media engine that succeeds, and says so.
struct MediaOperation {
  const char* line;  // what every failure's line begins with
  std::function<bool(image::MediaProc& engine)> run;
};

std::vector<MediaOperation> MediaOperations() {
  std::vector<MediaOperation> operations;
  for (const char* name : {"progressive_420.jpg", "rgba16.png", "palette4.bmp", "lossy.webp"}) {
    std::ifstream stream(QXTOOLS_PICTURES + std::string("/") + name, std::ios::binary);
    const std::vector<unsigned char> file(std::istreambuf_iterator<char>(stream), {});
    operations.push_back({"Decode: ", [file](image::MediaProc& engine) {
                            return engine.Decode(file.data(), file.size()) != nullptr;
                          }});
  }
  const testing::FramePtr picture = testing::NewFrame(kQXPixelFormatNV12, 34, 66, 1);
  const testing::FramePtr grey = testing::NewFrame(kQXPixelFormatGray8, 34, 66, 1);
  const testing::FramePtr rgb = testing::NewFrame(kQXPixelFormatRGB888, 34, 66, 3);
  for (const auto& [frame, format] : {std::pair(picture, image::kImageFileFormatJpeg),
                                      {rgb, image::kImageFileFormatJpeg},
                                      {picture, image::kImageFileFormatPng},
                                      {grey, image::kImageFileFormatBmp}}) {
    operations.push_back({"Encode: ", [frame = frame, format = format](image::MediaProc& engine) {
                            return !engine.Encode(frame, format, {}).empty();
                          }});
  }
  operations.push_back({"Resize: ", [picture](image::MediaProc& engine) {
                          return engine.Resize(picture, 20, 40) != nullptr;
                        }});
  const std::vector<image::MediaProc::Box> boxes = {{3, 3, 20, 9}, {0, 0, 65, 33}};
  operations.push_back({"Crop: ", [picture, boxes](image::MediaProc& engine) {
                          return !engine.Crop(picture, boxes, 50, 7, true).empty();
                        }});
  operations.push_back({"CvtColor: ", [picture](image::MediaProc& engine) {
                          return engine.CvtColor(picture, kQXPixelFormatRGB888) != nullptr;
                        }});
  return operations;
}

// Returns: how often the operation calls `name`. Each time that it fails, the result must be empty
// and the log longer by one line.
long SweepMediaOperation(const char* name, const MediaOperation& operation) {
  const auto engine = image::CreateFfmpegMediaProc();
  const LogCapture log;
  bool succeeded = false, failed = false;
  const auto attempt = [&] {
    succeeded = operation.run(*engine);
    failed = fault.happened;
  };
  std::size_t failures = 0;
  const auto check = [&](bool threw) {
    EXPECT_FALSE(threw);
    EXPECT_NE(succeeded, failed) << operation.line;
    failures += failed ? 1 : 0;
    EXPECT_THAT(log.Messages(),
                AllOf(SizeIs(failures), Each(::testing::StartsWith(operation.line))));
  };
  return Sweep(name, false, attempt, check);
}

TEST(FaultSweep, EveryFailureInTheMediaEngineIsOneLine) {
  const std::vector<MediaOperation> operations = MediaOperations();
  for (const char* name : {kNew,
                           "av_packet_alloc",
                           "av_new_packet",
                           "avcodec_find_decoder",
                           "avcodec_find_encoder",
                           "avcodec_alloc_context3",
                           "avcodec_open2",
                           "avcodec_send_packet",
                           "avcodec_receive_frame",
                           "avcodec_send_frame",
                           "avcodec_receive_packet",
                           "av_frame_alloc",
                           "av_frame_get_buffer",
                           "av_buffer_allocz",
                           "av_buffer_create",
                           "sws_getContext",
                           "sws_scale",
                           "tjInitCompress",
                           "tjCompress2",
                           "tjCompressFromYUVPlanes"}) {
    long uses = 0;
    for (const MediaOperation& operation : operations) {
      // A thread keeps its scalers, so each sweep begins in a new one.
      std::thread([&] { uses += SweepMediaOperation(name, operation); }).join();
    }
    EXPECT_GT(uses, 0) << name;
  }
}

TEST(FaultSweep, EveryAllocationOfARunOfTheKernel) {
  const image::BoardScope board;
  StereoMaps maps({2, 8, 32, 4});
  const auto expected = maps.Expected();
  for (const bool for_good : {false, true}) {
    for (const image::Way way : image::kWays) {
      const auto run = [&] { maps.Run(way); };
      const auto check = [&](bool) {
        EXPECT_EQ(emulated_board::GetStatus().open_units, 0U);
        std::fill(maps.cost.begin(), maps.cost.end(), std::uint8_t{0xA5});
        run();  // gives back what was kept because nobody could see whether the kernel still ran
        EXPECT_EQ(maps.cost, expected);
        EXPECT_EQ(emulated_board::GetStatus().buffers, 0U);
      };
      EXPECT_GT(Sweep(kNew, for_good, run, check), 5) << NameOf(way);
    }
  }
}

}  // namespace
}  // namespace qx::utils
