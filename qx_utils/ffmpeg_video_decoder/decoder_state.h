// The state of a decoder that its public class, whose size must not change, does not hold.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "qx_utils/ffmpeg_video_decoder/delivery.h"
#include "qx_utils/ffmpeg_video_decoder/picture_pool.h"
#include "qx_utils/ffmpeg_video_decoder/sent_packets.h"
#include "qxtools/ffmpeg_video_decoder.h"

namespace qx::utils::ffmpeg {

struct DecoderState {
  DecoderState() = default;
  DecoderState(const DecoderState&) = delete;
  DecoderState& operator=(const DecoderState&) = delete;
  ~DecoderState() { pool->Close(); }

  const std::shared_ptr<Delivery> delivery = std::make_shared<Delivery>();
  const std::shared_ptr<PicturePool> pool = std::make_shared<PicturePool>();
  std::deque<QueuedFrame> wake_up{1};  // allocated early, so that destruction needs no memory
  DecodeThreads threads = kDecodeOneThread;
  int thread_count = 1;
  SentPackets sent;
  std::uint64_t gaps = 0;    // discontinuities reported with queued frames
  std::string last_refusal;  // what was logged about the newest picture; "" if it was queued
};

}  // namespace qx::utils::ffmpeg
