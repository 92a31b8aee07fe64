#include "qxtools/packet_times.h"

#include "qx_utils/ffmpeg_handles.h"
#include "qx_utils/video/stream_packet.h"

namespace qx::utils::video {

static_assert(AV_NOPTS_VALUE == kNoTime, "FFmpeg's unknown time is ours");

std::optional<PacketTimes> PacketTimesOf(const std::shared_ptr<StreamPacket>& packet) {
  const AVPacket* wrapped = internal::WrappedPacket(packet);
  if (wrapped == nullptr) return std::nullopt;
  const internal::PacketStamp stamp = internal::StampOf(packet);
  if (stamp.time_base_den == 0) return std::nullopt;
  return PacketTimes{wrapped->pts,
                     wrapped->dts,
                     stamp.time_base_num,
                     stamp.time_base_den,
                     (wrapped->flags & AV_PKT_FLAG_KEY) != 0,
                     stamp.discontinuity,
                     stamp.wall_clock_us};
}

}  // namespace qx::utils::video
