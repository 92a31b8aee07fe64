#include "qx_utils/ffmpeg_video_decoder/sent_packets.h"

#include <limits>
#include <optional>

#include "qx_utils/ffmpeg_handles.h"
#include "qx_utils/video/stream_packet.h"

namespace qx::utils::ffmpeg {
namespace {

using video::StreamPacket;

// Types of NAL units (ITU-T H.264, table 7-1).
bool IsSlice(int type) { return type >= 1 && type <= 5; }
bool IsHeader(int type) { return type >= 6 && type <= 21; }

// Returns: whether `packet` consists of NAL units in Annex B form, none of them a slice. Stops at
//          the first slice, which in most packets is near the front, and does not read packets that
//          are too long for FFmpeg.
bool IsHeadersOnly(const StreamPacket& packet) {
  constexpr int kMaxSize = std::numeric_limits<int>::max() - AV_INPUT_BUFFER_PADDING_SIZE;
  if (packet.size > static_cast<std::uint64_t>(kMaxSize)) return false;
  bool any = false;
  for (std::uint64_t i = 0; i + 3 < packet.size; ++i) {
    const std::uint8_t* byte = packet.data + i;
    if (byte[0] != 0 || byte[1] != 0 || byte[2] != 1) continue;
    const int type = byte[3] & 0x1F;
    const bool forbidden_zero_bit = (byte[3] & 0x80) != 0;
    if (IsSlice(type) || !IsHeader(type) || forbidden_zero_bit) return false;
    any = true;
  }
  return any;
}

}  // namespace

std::int64_t SentPackets::Add(const std::shared_ptr<StreamPacket>& packet) {
  SentPacket sent;
  sent.number = next_++;
  if (const auto times = video::PacketTimesOf(packet)) sent.times = *times;
  if (sent.times.discontinuity) ++gaps_;
  sent.gaps = gaps_;
  const AVPacket* wrapped = internal::WrappedPacket(packet);
  sent.corrupt = wrapped != nullptr && (wrapped->flags & AV_PKT_FLAG_CORRUPT) != 0;
  sent.headers_only = IsHeadersOnly(*packet);
  packets_[static_cast<std::size_t>(sent.number) % kMemory] = sent;
  return sent.number;
}

const SentPacket& SentPackets::Find(std::int64_t number) const {
  static const SentPacket blank;
  if (number < 0) return blank;
  const SentPacket& sent = packets_[static_cast<std::size_t>(number) % kMemory];
  return sent.number == number ? sent : blank;
}

}  // namespace qx::utils::ffmpeg
