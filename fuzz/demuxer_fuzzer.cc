// Damaged files through the demuxer: it opens them or says why not, every packet is readable to its
// last byte, and opening the same file again with the same object gives the same.
#include <glog/logging.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "fuzz/require.h"
#include "qx_utils/ffmpeg_handles.h"
#include "qxtools/ffmpeg_demuxer.h"

namespace {

using qx::fuzzing::Require;
using qx::utils::video::DemuxerFault;
using qx::utils::video::FfmpegDemuxer;

// A damaged table can promise packets without end, all from the same few bytes.
constexpr int kMaxPackets = 200;

// Status and fault of Open(), the stream, how many packets came, and what is in them.
using Outcome = std::tuple<int, DemuxerFault, int, int, std::uint64_t>;

Outcome ReadFile(FfmpegDemuxer& demuxer, const std::string& path) {
  const int old_index = demuxer.VideoStreamIndex();
  const int status = demuxer.Open(path, {});
  const DemuxerFault fault = demuxer.LastFault();
  Require((status == 0) == (fault == DemuxerFault::kNone));
  Require(status == 0 ? demuxer.VideoStreamIndex() >= 0 : status == -1);
  Require(status == 0 || fault == DemuxerFault::kNoVideoStream ||
          demuxer.VideoStreamIndex() == old_index);
  int packets = 0;
  std::uint64_t hash = 0;
  for (; packets < kMaxPackets; ++packets) {
    const auto packet = demuxer.ReadFrame();
    Require((packet != nullptr) == (demuxer.LastFault() == DemuxerFault::kNone));
    if (packet == nullptr) break;
    Require(status == 0 && packet->data != nullptr && packet->size != 0);
    Require((packet->reserved0 | packet->reserved1 | packet->reserved2) == 0);
    for (std::uint64_t i = 0; i < packet->size; ++i) hash = hash * 31 + packet->data[i];
    hash += packet->codec;
  }
  return {status, fault, demuxer.VideoStreamIndex(), packets, hash};
}

}  // namespace

// The pause after a failed read, which every file ends with, is no time to fuzz in.
extern "C" int nanosleep(const timespec* /*duration*/, timespec* /*rest*/) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int file = memfd_create("fuzz", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  PCHECK(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
  FfmpegDemuxer demuxer;
  const Outcome first = ReadFile(demuxer, path);
  Require(ReadFile(demuxer, path) == first);
  return 0;
}
