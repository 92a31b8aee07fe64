// What a decoder remembers of the packets it gave to FFmpeg, until their pictures come out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "qxtools/packet_times.h"
#include "qxtools/video.h"

namespace qx::utils::ffmpeg {

struct SentPacket {
  std::int64_t number = -1;
  video::PacketTimes times = {video::kNoTime, video::kNoTime, 0, 1, false, false, video::kNoTime};
  std::uint64_t gaps = 0;     // discontinuities up to and including this packet
  bool corrupt = false;       // marked so by the demuxer
  bool headers_only = false;  // NAL units of H.264 without a slice
};

// Finds a picture's packet by its number, which travels through FFmpeg as the presentation time:
// the one value that all FFmpeg generations pass from packets to pictures, through reordering and
// several threads. Its H.264 decoder does not use it otherwise.
class SentPackets {
 public:
  // Remembers `packet` under the next number. Returns: that number.
  std::int64_t Add(const std::shared_ptr<video::StreamPacket>& packet);

  // Returns: the packet with that number; a blank one if there is none or it is too old.
  const SentPacket& Find(std::int64_t number) const;

 private:
  // FFmpeg holds back 16 pictures for reordering and one for each of at most 16 threads; a picture
  // may take two packets, one for each field, and a packet of headers may precede both.
  static constexpr std::size_t kMemory = 256;

  std::array<SentPacket, kMemory> packets_;
  std::int64_t next_ = 0;
  std::uint64_t gaps_ = 0;
};

}  // namespace qx::utils::ffmpeg
