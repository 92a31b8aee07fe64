#include "qxtools/annexb_filter.h"

#include <glog/logging.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>

#include "qx_utils/internal/ffmpeg_handles.h"
#include "qx_utils/internal/stream_packet.h"
#include "qxtools/ffmpeg_demuxer.h"

namespace qx {
namespace utils {
namespace video {
namespace {

using BsfPtr = internal::FfmpegPtr<AVBSFContext>;

// Returns: whether a decoder configuration record stands before the packets, which makes them
// length-prefixed. Its first byte is a version (ISO/IEC 14496-15, 5.3.3.1 and 8.3.3.1; early H.265
// muxers wrote 0); Annex B begins with at least two zero bytes and a one, or is absent.
bool IsLengthPrefixed(const AVCodecParameters& parameters) {
  constexpr int kMinAvcRecord = 7;
  constexpr int kMinHevcRecord = 23;
  const int least = parameters.codec_id == AV_CODEC_ID_H264 ? kMinAvcRecord : kMinHevcRecord;
  const std::uint8_t* bytes = parameters.extradata;
  if (parameters.extradata_size < least) return false;
  return !(bytes[0] == 0 && bytes[1] == 0 && (bytes[2] == 1 || (bytes[2] == 0 && bytes[3] == 1)));
}

// Returns: whether the parameter sets that an H.265 record announces lie within its `size` bytes,
// which are 23 at least (ISO/IEC 14496-15, 8.3.3.1). FFmpeg takes those that are missing for empty
// ones, tens of thousands of them.
bool IsWholeHevcRecord(const std::uint8_t* record, int size) {
  constexpr int kArrayCount = 22;  // offset
  const std::uint8_t* at = record + kArrayCount;
  const std::uint8_t* const end = record + size;
  for (int arrays = *at++; arrays > 0; --arrays) {
    if (end - at < 3) return false;
    int units = at[1] << 8 | at[2];
    for (at += 3; units > 0; --units) {
      if (end - at < 2) return false;
      const std::ptrdiff_t unit_bytes = at[0] << 8 | at[1];
      if (end - at < 2 + unit_bytes) return false;
      at += 2 + unit_bytes;
    }
  }
  return true;
}

// Returns: whether the Annex B packet holds a sequence parameter set before its first slice.
bool HasParameterSet(const StreamPacket& packet) {
  const bool h264 = packet.codec == kVideoCodecH264;
  for (std::uint64_t i = 0; i + 3 < packet.size; ++i) {
    const std::uint8_t* byte = packet.data + i;
    if (byte[0] != 0 || byte[1] != 0 || byte[2] != 1) continue;
    const int type = h264 ? byte[3] & 0x1F : (byte[3] >> 1) & 0x3F;
    if (type == (h264 ? 7 : 33)) return true;
    if (h264 ? type >= 1 && type <= 5 : type < 32) return false;  // a slice
  }
  return false;
}

// Returns: FFmpeg's filter `name`, ready for packets with `parameters`; null when it refuses them.
BsfPtr MakeFilter(const char* name, const AVCodecParameters& parameters) {
  const AVBitStreamFilter* filter = av_bsf_get_by_name(name);
  AVBSFContext* context = nullptr;
  if (filter == nullptr || av_bsf_alloc(filter, &context) != 0) return nullptr;
  BsfPtr owner(context);
  if (avcodec_parameters_copy(context->par_in, &parameters) < 0) return nullptr;
  if (av_bsf_init(context) < 0) return nullptr;
  return owner;
}

}  // namespace

class AnnexBFilter::Impl {
 public:
  explicit Impl(const AVCodecParameters& parameters)
      : length_prefixed_(IsLengthPrefixed(parameters)),
        filter_(MakeFilter(FilterName(parameters), parameters)) {}

  bool ok() const { return filter_ != nullptr; }

  std::shared_ptr<StreamPacket> Filter(const std::shared_ptr<StreamPacket>& packet) {
    if (packet->size == 0 || !NeedsFilter(packet)) return packet;
    AVPacket buffer;
    internal::InitPacket(buffer);
    const int code = Run(packet, buffer);
    if (code == 0) return internal::WrapPacket(buffer, packet->codec, StampFor(packet));
    LOG(ERROR) << "Annex B filter: packet of " << packet->size << " bytes refused, ret=" << code;
    av_bsf_flush(filter_.get());
    gap_ = true;
    return nullptr;
  }

 private:
  const char* FilterName(const AVCodecParameters& parameters) const {
    if (!length_prefixed_) return "dump_extra";
    return parameters.codec_id == AV_CODEC_ID_H264 ? "h264_mp4toannexb" : "hevc_mp4toannexb";
  }

  // A stream that has shown parameter sets of its own is left alone from then on: those of the
  // container may be older.
  bool NeedsFilter(const std::shared_ptr<StreamPacket>& packet) {
    if (length_prefixed_) return true;
    if (own_parameter_sets_ || filter_->par_in->extradata_size == 0) return false;
    const AVPacket* wrapped = internal::WrappedPacket(packet);
    if (wrapped == nullptr || (wrapped->flags & AV_PKT_FLAG_KEY) == 0) return false;
    own_parameter_sets_ = HasParameterSet(*packet);
    return !own_parameter_sets_;
  }

  // Times of the input; packets that were refused are missing before it.
  internal::PacketStamp StampFor(const std::shared_ptr<StreamPacket>& packet) {
    internal::PacketStamp stamp = internal::StampOf(packet);
    if (std::exchange(gap_, false)) stamp.discontinuity = true;
    return stamp;
  }

  // Returns: 0 with the converted packet in `buffer`, or FFmpeg's code with `buffer` blank.
  int Run(const std::shared_ptr<StreamPacket>& packet, AVPacket& buffer) {
    if (packet->size > static_cast<std::uint64_t>(std::numeric_limits<int>::max())) {
      return AVERROR(EINVAL);  // FFmpeg's packets are no longer
    }
    AVPacket bytes;  // stands for a packet that was not made by a demuxer; copied by the reference
    internal::InitPacket(bytes);
    bytes.data = packet->data;
    bytes.size = static_cast<int>(packet->size);
    const AVPacket* wrapped = internal::WrappedPacket(packet);
    int code = av_packet_ref(&buffer, wrapped != nullptr ? wrapped : &bytes);
    if (code == 0) code = av_bsf_send_packet(filter_.get(), &buffer);
    if (code == 0) code = av_bsf_receive_packet(filter_.get(), &buffer);
    if (code == 0 && buffer.size == 0) code = AVERROR_INVALIDDATA;  // empty NAL units alone
    if (code != 0) av_packet_unref(&buffer);
    return code;
  }

  const bool length_prefixed_;
  const BsfPtr filter_;
  bool own_parameter_sets_ = false;
  bool gap_ = false;
};

AnnexBFilter::AnnexBFilter() = default;

AnnexBFilter::~AnnexBFilter() = default;

int AnnexBFilter::Init(const FfmpegDemuxer& demuxer) {
  impl_.reset();
  if (!demuxer.avformat_cxt_ || demuxer.video_stream_index_ < 0) {
    LOG(ERROR) << "Annex B filter: the demuxer has no video stream open";
    return -1;
  }
  const AVCodecParameters& parameters =
      *demuxer.avformat_cxt_->streams[demuxer.video_stream_index_]->codecpar;
  if (parameters.codec_id == AV_CODEC_ID_HEVC && IsLengthPrefixed(parameters) &&
      !IsWholeHevcRecord(parameters.extradata, parameters.extradata_size)) {
    LOG(ERROR) << "Annex B filter: the stream's parameter sets are cut off";
    return -1;
  }
  auto impl = std::make_unique<Impl>(parameters);
  if (!impl->ok()) {
    LOG(ERROR) << "Annex B filter: FFmpeg refuses the stream's parameter sets";
    return -1;
  }
  impl_ = std::move(impl);
  return 0;
}

std::shared_ptr<StreamPacket> AnnexBFilter::Filter(const std::shared_ptr<StreamPacket>& packet) {
  if (!packet) return nullptr;
  if (impl_) return impl_->Filter(packet);
  LOG(ERROR) << "Annex B filter: not prepared for a stream";
  return nullptr;
}

}  // namespace video
}  // namespace utils
}  // namespace qx
