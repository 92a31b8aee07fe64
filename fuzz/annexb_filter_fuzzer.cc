// Damaged packets and damaged parameter sets through the Annex B filter. What is not damaged comes
// out whole: the NAL units of a packet, in their order, behind start codes.
#include <glog/logging.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/require.h"
#include "qx_utils/video/stream_packet.h"
#include "qxtools/annexb_filter.h"
#include "qxtools/ffmpeg_demuxer.h"

namespace {

using qx::fuzzing::Require;
using namespace qx::utils;  // NOLINT(google-build-using-namespace)
using video::StreamPacket;
using Bytes = std::vector<std::uint8_t>;

// The one stream of every input that is opened.
struct Source {
  bool is_h265;
  Bytes extradata;

  // Bytes of the length in front of each NAL unit, which the decoder configuration record tells; 0
  // when there is none (ISO/IEC 14496-15, 5.3.3.1 and 8.3.3.1).
  std::size_t LengthBytes() const {
    if (extradata.size() < (is_h265 ? 23 : 7)) return 0;
    const auto* bytes = extradata.data();
    const bool is_annexb =
        bytes[0] == 0 && bytes[1] == 0 && (bytes[2] == 1 || (bytes[2] == 0 && bytes[3] == 1));
    return is_annexb ? 0 : 1 + bytes[is_h265 ? 21 : 4] % 4;
  }
} source;

// Takes up to data[0] bytes from what follows.
Bytes Take(const std::uint8_t*& data, const std::uint8_t* end) {
  if (data == end) return {};
  const std::ptrdiff_t size = std::min<std::ptrdiff_t>(data[0], end - data - 1);
  Bytes bytes(data + 1, data + 1 + size);
  data += 1 + size;
  return bytes;
}

// As the demuxer makes them, or as an application does, of exactly the size.
std::shared_ptr<StreamPacket> MakePacket(Bytes& payload, int kind) {
  const auto codec = source.is_h265 ? video::kVideoCodecH265 : video::kVideoCodecH264;
  if (kind % 4 == 0) {
    return std::make_shared<StreamPacket>(
        StreamPacket{payload.data(), payload.size(), 0, codec, 0, 0});
  }
  AVPacket packet;
  internal::InitPacket(packet);
  CHECK_EQ(av_new_packet(&packet, static_cast<int>(payload.size())), 0);
  std::copy(payload.begin(), payload.end(), packet.data);
  packet.flags = kind % 2 == 0 ? AV_PKT_FLAG_KEY : 0;
  return internal::WrapPacket(packet, codec);
}

// Returns: whether `bytes` are those of `payload` with something put in at one place.
bool HoldsInTwoPieces(const Bytes& bytes, const Bytes& payload) {
  if (bytes.size() < payload.size()) return false;
  const auto front = std::mismatch(payload.begin(), payload.end(), bytes.begin()).first;
  const auto back = std::mismatch(payload.rbegin(), payload.rend(), bytes.rbegin()).first;
  return front - payload.begin() + (back - payload.rbegin()) >= payload.end() - payload.begin();
}

// Requires that every NAL unit of `payload` stands in `annexb`, unless one is none: no NAL unit
// holds a start code or ends with a zero.
void RequireUnits(const Bytes& payload, const StreamPacket* annexb) {
  const Bytes start_code = {0, 0, 1};
  const std::size_t prefix = source.LengthBytes();
  std::vector<Bytes> units;
  for (std::size_t at = 0; at < payload.size();) {
    if (payload.size() - at < prefix) return;
    std::size_t size = 0;
    for (std::size_t i = 0; i < prefix; ++i) size = size << 8 | payload[at++];
    if (size > payload.size() - at || size < (source.is_h265 ? 2 : 1)) return;
    const std::uint8_t* const unit = payload.data() + at;
    const std::uint8_t* const next = payload.data() + (at += size);
    if (next[-1] == 0) return;
    if (std::search(unit, next, start_code.begin(), start_code.end()) != next) return;
    units.push_back(start_code);
    units.back().insert(units.back().end(), unit, next);
  }
  Require(annexb != nullptr);
  const std::uint8_t* from = annexb->data;
  const std::uint8_t* const end = annexb->data + annexb->size;
  for (const Bytes& unit : units) {
    from = std::search(from, end, unit.begin(), unit.end());
    Require(from != end);
    from += unit.size();
  }
}

}  // namespace

// These stand in front of FFmpeg's own.
extern "C" int avformat_open_input(AVFormatContext** context, const char* /*url*/,
                                   decltype(AVFormatContext::iformat) /*format*/,
                                   AVDictionary** /*options*/) {
  AVCodecParameters& parameters = *avformat_new_stream(*context, nullptr)->codecpar;
  parameters.codec_type = AVMEDIA_TYPE_VIDEO;
  parameters.codec_id = source.is_h265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
  if (source.extradata.empty()) return 0;
  const std::size_t size = source.extradata.size();
  parameters.extradata =
      static_cast<std::uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
  std::memcpy(parameters.extradata, source.extradata.data(), size);
  parameters.extradata_size = static_cast<int>(size);
  return 0;
}
extern "C" int avformat_find_stream_info(AVFormatContext* /*context*/, AVDictionary** /*options*/) {
  return 0;
}

// Input: codec, then the parameter sets and the packets, each behind its size and, packets, kind.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint8_t* const end = data + size;
  source.is_h265 = *data++ % 2 != 0;
  source.extradata = Take(data, end);
  video::FfmpegDemuxer demuxer;
  video::AnnexBFilter filter;
  Require(demuxer.Open("", {}) == 0);
  const int status = filter.Init(demuxer);
  Require(status == 0 || status == -1);
  while (data != end) {
    const int kind = *data++;
    Bytes payload = Take(data, end);
    const auto packet = MakePacket(payload, kind);
    const auto annexb = filter.Filter(packet);
    Require(std::equal(payload.begin(), payload.end(), packet->data));
    if (status != 0 || annexb == nullptr) {
      Require(annexb == nullptr && (status != 0 || source.LengthBytes() != 0));
    } else {
      Require(annexb->codec == packet->codec && (annexb == packet || annexb->size != 0));
      const Bytes out(annexb->data, annexb->data + annexb->size);
      Require(source.LengthBytes() != 0 || HoldsInTwoPieces(out, payload));
    }
    if (status == 0 && source.LengthBytes() != 0) RequireUnits(payload, annexb.get());
  }
  return 0;
}
