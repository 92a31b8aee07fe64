// The times of a packet, and whether packets are missing before it.
//
//   while (auto packet = demuxer.ReadFrame()) {
//     const auto times = qx::utils::video::PacketTimesOf(packet);
//     if (times && times->presentation != qx::utils::video::kNoTime) {
//       const double seconds = static_cast<double>(times->presentation) * times->time_base_num /
//                              times->time_base_den;
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "qxtools/export.h"
#include "qxtools/video.h"

namespace qx::utils::video {

// A time that is not known.
constexpr std::int64_t kNoTime = INT64_MIN;

// The times of one packet. One unit of `presentation` and `decoding` lasts
// time_base_num / time_base_den seconds; both count from an origin that the input defines and
// may be negative. Pictures are shown in the order of `presentation` and stored in that of
// `decoding`.
struct PacketTimes {
  // kNoTime in raw byte streams, which hold no times, and for an RTSP picture whose time FFmpeg
  // does not know: the first of a connection, and the first after 3 s of silence.
  std::int64_t presentation;
  std::int64_t decoding;  // likewise
  std::int32_t time_base_num;
  std::int32_t time_base_den;
  bool key;  // decoding can begin at this packet
  // Packets are missing before this one: it is the first one after the demuxer was opened again,
  // after a failure that lost data, or after a damaged packet that was skipped. A time limit or a
  // cancel loses nothing and sets no mark; the very first packet has none either.
  bool discontinuity;
  // The sender's wall clock at the presentation time, in microseconds since 1970-01-01 UTC; kNoTime
  // until the sender has reported it. RTSP only: see FfmpegDemuxer::ReadFrame().
  std::int64_t wall_clock_us;
};

// Returns: the times of a packet from FfmpegDemuxer, before or after AnnexBFilter; empty for a
// packet that was not made by a demuxer of this library, and for a null pointer.
// Threads: any, also several at once with the same packet.
QXTOOLS_EXPORT std::optional<PacketTimes> PacketTimesOf(
    const std::shared_ptr<StreamPacket>& packet);

}  // namespace qx::utils::video
