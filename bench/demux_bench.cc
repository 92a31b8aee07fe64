// Demuxing through FfmpegDemuxer against a bare av_read_frame() loop, on the same file, in turns.
// Usage: demux_bench FILE [ROUNDS]
//
// Opening a file probes it, and FFmpeg keeps the packets that it read for that: reading them again
// takes next to nothing. So there are two figures: `read`, from the first packet to the last, is of
// use for files of several seconds; `open and read` for all.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "bench/interleaved.h"
#include "qx_utils/ffmpeg_handles.h"
#include "qxtools/ffmpeg_demuxer.h"

namespace {

using qx::bench::Median;
using qx::bench::MedianRatio;
using qx::utils::internal::FfmpegPtr;
using qx::utils::video::FfmpegDemuxer;
using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// Both loops read exactly `packets` packets of stream `index` and touch each: the pauses at the end
// of a file are not what is compared. They return the seconds of reading, without opening.
double Bare(FfmpegDemuxer& opener, const char* path, int index, long packets) {
  const std::shared_ptr<AVFormatContext> input = opener.CreateFormatContext(path);
  const FfmpegPtr<AVPacket> packet(av_packet_alloc());
  const auto opened = Clock::now();
  while (packets > 0 && av_read_frame(input.get(), packet.get()) == 0) {
    if (packet->stream_index == index && packet->size > 0) --packets;
    av_packet_unref(packet.get());
  }
  return Seconds(opened, Clock::now());
}

double Ours(FfmpegDemuxer& demuxer, const char* path, long packets) {
  demuxer.Open(path, {});
  const auto opened = Clock::now();
  while (packets > 0 && demuxer.ReadFrame()) --packets;
  return Seconds(opened, Clock::now());
}

}  // namespace

int main(int argc, char** argv) {
  FfmpegDemuxer demuxer;
  if (argc < 2 || demuxer.Open(argv[1], {}) != 0) {
    std::fprintf(stderr,
                 "usage: demux_bench FILE [ROUNDS]   (FILE with an H.264 or H.265 stream)\n");
    return 2;
  }
  long packets = 0;
  while (demuxer.ReadFrame()) ++packets;
  qx::bench::Rounds rounds;
  rounds.count = argc > 2 ? std::max(1, std::atoi(argv[2])) : 101;
  std::vector<double> bare, ours;
  const std::vector<qx::bench::Times> whole = qx::bench::RunInterleaved(
      {{"bare",
        [&] { bare.push_back(Bare(demuxer, argv[1], demuxer.VideoStreamIndex(), packets)); }},
       {"ours", [&] { ours.push_back(Ours(demuxer, argv[1], packets)); }}},
      rounds);
  const double scale = 1e9 / static_cast<double>(packets);
  std::printf("packets %ld, rounds %d (medians)\n", packets, rounds.count);
  std::printf("av_read_frame  %8.0f ns per packet\n", Median(bare) * scale);
  std::printf("FfmpegDemuxer  %8.0f ns per packet\n", Median(ours) * scale);
  std::printf("ratio          %8.3f read, %.3f open and read (at most 1.05)\n",
              MedianRatio(ours, bare), MedianRatio(whole[1].elapsed, whole[0].elapsed));
  return 0;
}
