// StreamPackets that own an AVPacket, and access to that AVPacket.
#pragma once

#include <memory>

#include "qx_utils/ffmpeg_handles.h"
#include "qxtools/packet_times.h"
#include "qxtools/video.h"

namespace qx::utils::internal {

// What an AVPacket itself does not record: in older FFmpeg generations it has no time base.
struct PacketStamp {
  std::int32_t time_base_num = 0;
  std::int32_t time_base_den = 0;  // 0: not from a demuxer
  bool discontinuity = false;
  std::int64_t wall_clock_us = video::kNoTime;
};

// Wraps `packet`. Its reference moves into the result's deleter, or is released when an allocation
// throws: in both cases the caller gives up ownership. The payload is not copied.
std::shared_ptr<video::StreamPacket> WrapPacket(AVPacket& packet, video::VideoCodec codec,
                                                const PacketStamp& stamp = {});

// Returns: the AVPacket that `packet` owns; null when WrapPacket() did not make it.
const AVPacket* WrappedPacket(const std::shared_ptr<video::StreamPacket>& packet);

// Returns: what WrapPacket() was given; a blank stamp when it did not make `packet`.
PacketStamp StampOf(const std::shared_ptr<video::StreamPacket>& packet);

}  // namespace qx::utils::internal
