#include "qx_utils/video/stream_packet.h"

namespace qx::utils::internal {
namespace {

// Holds the AVPacket by value, which saves a third allocation per packet.
struct PacketDeleter {
  AVPacket packet;
  PacketStamp stamp;

  void operator()(video::StreamPacket* record) {
    delete record;
    av_packet_unref(&packet);
  }
};

// Releases the packet if the record cannot be allocated.
struct PacketUnref {
  void operator()(AVPacket* packet) const { av_packet_unref(packet); }
};

}  // namespace

std::shared_ptr<video::StreamPacket> WrapPacket(AVPacket& packet, video::VideoCodec codec,
                                                const PacketStamp& stamp) {
  std::unique_ptr<AVPacket, PacketUnref> guard(&packet);
  auto record = std::make_unique<video::StreamPacket>();
  record->data = packet.data;
  record->size = static_cast<std::uint64_t>(packet.size);
  record->codec = codec;
  // From here on the deleter owns the payload: it runs even if the control block is not allocated.
  static_cast<void>(guard.release());
  return {record.release(), PacketDeleter{packet, stamp}};
}

const AVPacket* WrappedPacket(const std::shared_ptr<video::StreamPacket>& packet) {
  const auto* deleter = std::get_deleter<PacketDeleter>(packet);
  return deleter == nullptr ? nullptr : &deleter->packet;
}

PacketStamp StampOf(const std::shared_ptr<video::StreamPacket>& packet) {
  const auto* deleter = std::get_deleter<PacketDeleter>(packet);
  return deleter == nullptr ? PacketStamp() : deleter->stamp;
}

}  // namespace qx::utils::internal
