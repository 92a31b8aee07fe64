// Damaged H.264 streams through the decoder: every delivered frame is readable to its last byte,
// also once the next one was delivered, frames come in the order of their packets, none is lost,
// and draining ends.
#include <glog/logging.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "qx_utils/ffmpeg_handles.h"
#include "qxtools/ffmpeg_video_decoder.h"

namespace {

using qx::utils::ffmpeg::FrameLayout;
using qx::utils::ffmpeg::kDecodeEndOfStream;
using qx::utils::video::StreamPacket;

// Ends of the packets: each runs up to the start code that follows a slice (NAL unit types 1 to 5).
std::vector<std::size_t> Split(const std::uint8_t* data, std::size_t size) {
  std::vector<std::size_t> ends;
  bool slice = false;
  for (std::size_t i = 0; i + 3 < size; ++i) {
    if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) continue;
    if (slice) ends.push_back(i);
    const int type = data[i + 3] & 0x1F;
    slice = type >= 1 && type <= 5;
  }
  ends.push_back(size);
  return ends;
}

void CheckReadable(const std::shared_ptr<velkar::vision::ImageFrame>& frame) {
  const FrameLayout* layout = qx::utils::ffmpeg::LayoutOf(frame);
  CHECK(layout != nullptr);
  for (std::uint32_t i = 0; i < layout->plane_count; ++i) {
    const FrameLayout::Plane& plane = layout->planes[i];
    CHECK_LE(plane.row_bytes, plane.pitch);
    CHECK_LE(plane.offset + std::uint64_t{plane.pitch} * plane.rows, frame->DataSize());
    for (std::size_t row = 0; row < plane.rows; ++row) {
      std::vector<std::uint8_t> copy(plane.row_bytes);
      std::copy_n(frame->Data() + plane.offset + row * plane.pitch, copy.size(), copy.begin());
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::uintptr_t> delivered;
  std::shared_ptr<velkar::vision::ImageFrame> last;  // held while the next picture is made
  const auto decoder = qx::utils::ffmpeg::CreateFfmpegDecoder();
  CHECK_EQ(decoder->Init(), 0);
  decoder->SetCallback([&](std::shared_ptr<velkar::vision::ImageFrame> frame, void* tag) {
    CheckReadable(frame);
    if (last != nullptr) CheckReadable(last);
    last = std::move(frame);
    delivered.push_back(reinterpret_cast<std::uintptr_t>(tag));
  });
  std::vector<std::uintptr_t> queued;
  std::size_t begin = 0;
  std::uintptr_t tag = 0;
  for (const std::size_t end : Split(data, size)) {
    std::vector<std::uint8_t> payload(data + begin, data + end);  // exactly as long
    const auto packet = std::make_shared<StreamPacket>();
    packet->data = payload.data();
    packet->size = payload.size();
    begin = end;
    if (decoder->SendFrame(packet, reinterpret_cast<void*>(++tag)) == 0) queued.push_back(tag);
  }
  const auto drain = std::make_shared<StreamPacket>();
  for (int status = 0, calls = 0; status != kDecodeEndOfStream; ++calls) {
    status = decoder->SendFrame(drain, reinterpret_cast<void*>(++tag));
    if (status == 0) queued.push_back(tag);
    CHECK_LT(calls, 100);
  }
  decoder->WaitUntilDelivered();
  CHECK(delivered == queued);
  return 0;
}
