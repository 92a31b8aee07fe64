// What the decoder's tests share: packets of clips, a receiver of frames, sending and draining.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "qxtools/annexb_filter.h"
#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/ffmpeg_video_decoder.h"

namespace qx::testing {

using FramePtr = std::shared_ptr<velkar::vision::ImageFrame>;
using PacketPtr = std::shared_ptr<utils::video::StreamPacket>;

inline std::string ClipPath(const std::string& name) {
  return std::string(QXTOOLS_CLIPS_DIR) + "/" + name;
}

inline std::vector<PacketPtr> ReadPackets(const std::string& clip) {
  utils::video::FfmpegDemuxer demuxer;
  utils::video::AnnexBFilter filter;
  EXPECT_EQ(demuxer.Open(ClipPath(clip), {}), 0) << clip;
  EXPECT_EQ(filter.Init(demuxer), 0) << clip;
  std::vector<PacketPtr> packets;
  while (auto packet = demuxer.ReadFrame()) packets.push_back(filter.Filter(packet));
  return packets;
}

inline PacketPtr MakePacket(std::uint8_t* data, std::uint64_t size) {
  auto packet = std::make_shared<utils::video::StreamPacket>();
  packet->data = data;
  packet->size = size;
  return packet;
}

// Returns: the samples of all planes, without what fills up the rows.
inline std::string Samples(const FramePtr& frame) {
  const utils::ffmpeg::FrameLayout& layout = *utils::ffmpeg::LayoutOf(frame);
  std::string samples;
  for (std::uint32_t i = 0; i < layout.plane_count; ++i) {
    const auto& plane = layout.planes[i];
    const auto* row = reinterpret_cast<const char*>(frame->Data()) + plane.offset;
    for (std::uint32_t y = 0; y < plane.rows; ++y, row += plane.pitch) {
      samples.append(row, plane.row_bytes);
    }
  }
  return samples;
}

inline void* Tag(std::size_t number) { return reinterpret_cast<void*>(number); }

// Keeps what the callback gets.
class Receiver {
 public:
  utils::video::FrameCallback Callback() {
    return [this](FramePtr frame, void* user_data) {
      const std::lock_guard<std::mutex> lock(mutex_);
      frames_.push_back(std::move(frame));
      tags_.push_back(user_data);
    };
  }
  // Returns: all frames that were queued before the call.
  std::vector<FramePtr> Frames(utils::ffmpeg::FfmpegDecoder& decoder) {
    decoder.WaitUntilDelivered();
    const std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }
  std::vector<void*> Tags() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return tags_;
  }

 private:
  std::mutex mutex_;
  std::vector<FramePtr> frames_;
  std::vector<void*> tags_;
};

inline std::shared_ptr<utils::ffmpeg::FfmpegDecoder> OpenDecoder(
    utils::video::FrameCallback callback = nullptr) {
  auto decoder = utils::ffmpeg::CreateFfmpegDecoder();
  EXPECT_EQ(decoder->Init(), 0);
  EXPECT_EQ(decoder->SetCallback(std::move(callback)), 0);
  return decoder;
}

// Sends the packets, tagged 1, 2, 3 ...; returns the tags of those that queued a frame.
inline std::vector<void*> SendAll(utils::video::Decoder& decoder,
                                  const std::vector<PacketPtr>& packets) {
  std::vector<void*> queued;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    const int status = decoder.SendFrame(packets[i], Tag(i + 1));
    if (status == utils::ffmpeg::kDecodeOk) queued.push_back(Tag(i + 1));
  }
  return queued;
}

// Drains to the end, which must come within 17 calls; returns how often each gave `wanted`.
inline std::size_t Drain(utils::video::Decoder& decoder, int wanted = utils::ffmpeg::kDecodeOk) {
  std::size_t count = 0;
  for (int calls = 0; calls < 17; ++calls) {
    const int status = decoder.SendFrame(MakePacket(nullptr, 0), nullptr);
    if (status == utils::ffmpeg::kDecodeEndOfStream) return count;
    count += status == wanted ? 1 : 0;
  }
  ADD_FAILURE() << "draining does not end";
  return count;
}

}  // namespace qx::testing
