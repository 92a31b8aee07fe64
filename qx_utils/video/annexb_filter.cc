#include "qxtools/annexb_filter.h"

#include <glog/logging.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "qx_utils/ffmpeg_handles.h"
#include "qx_utils/video/stream_packet.h"
#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/reconnecting_demuxer.h"

namespace qx::utils::video {
namespace {

using BsfPtr = internal::FfmpegPtr<AVBSFContext>;

// FFmpeg's packets are no longer.
constexpr std::uint64_t kMaxBytes =
    std::numeric_limits<int>::max() - AV_INPUT_BUFFER_PADDING_SIZE - 1;

// Returns: whether the stream has a decoder configuration record, which means that its packets are
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

// Returns: whether the parameter sets that an H.265 record announces fit its `size` bytes, at least
// 23 (ISO/IEC 14496-15, 8.3.3.1). FFmpeg treats missing ones as empty, tens of thousands of them.
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

// What an Annex B packet begins with, up to its first slice.
struct Opening {
  bool has_sets = false;  // a sequence parameter set
  bool has_slice = false;
  bool is_key = false;      // the slice's type says that decoding can begin here
  std::size_t sets_at = 0;  // where parameter sets belong: behind an access unit delimiter
};

Opening Examine(const StreamPacket& packet) {
  const bool h264 = packet.codec == kVideoCodecH264;
  Opening opening;
  bool behind_delimiter = false;
  for (std::uint64_t i = 0; i + 3 < packet.size && !opening.has_slice; ++i) {
    const std::uint8_t* byte = packet.data + i;
    if (byte[0] != 0 || byte[1] != 0 || byte[2] != 1) continue;
    if (behind_delimiter) opening.sets_at = i > 0 && byte[-1] == 0 ? i - 1 : i;
    const int type = h264 ? byte[3] & 0x1F : (byte[3] >> 1) & 0x3F;
    behind_delimiter = type == (h264 ? 9 : 35);
    if (type == (h264 ? 7 : 33)) opening.has_sets = true;
    opening.has_slice = h264 ? type >= 1 && type <= 5 : type < 32;
    opening.is_key = opening.has_slice && (h264 ? type == 5 : type >= 16 && type <= 23);
  }
  return opening;
}

// Returns: FFmpeg's filter `name`, ready for packets with `parameters`; null if it rejects them.
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
  // Packets that are ready already.
  Impl() = default;

  explicit Impl(const AVCodecParameters& parameters)
      : length_prefixed_(IsLengthPrefixed(parameters)) {
    const AVCodecParameters* annexb = &parameters;
    if (length_prefixed_) {
      const bool h264 = parameters.codec_id == AV_CODEC_ID_H264;
      filter_ = MakeFilter(h264 ? "h264_mp4toannexb" : "hevc_mp4toannexb", parameters);
      if (!filter_) return;
      annexb = filter_->par_out;
    }
    sets_.assign(annexb->extradata, annexb->extradata + annexb->extradata_size);
  }

  bool ok() const { return !length_prefixed_ || filter_ != nullptr; }

  std::shared_ptr<StreamPacket> Filter(const std::shared_ptr<StreamPacket>& packet) {
    if (packet->size == 0) return packet;
    std::shared_ptr<StreamPacket> annexb = packet;
    int code = length_prefixed_ ? Convert(packet, annexb) : 0;
    if (code == 0) code = AddSetsWhereNeeded(annexb);
    if (code == 0) return annexb;
    LOG(ERROR) << "Annex B filter: packet of " << packet->size << " bytes refused, ret=" << code;
    if (filter_) internal::FlushFilter(filter_.get());
    gap_ = true;
    return nullptr;
  }

 private:
  // Returns: whether the container's parameter sets must precede this picture. FFmpeg's own filter
  // adds them only to IDR pictures, but decoding may begin at others.
  bool NeedsSets(const std::shared_ptr<StreamPacket>& packet, const Opening& opening) {
    if (opening.has_sets) sets_came_ = true;
    if (!opening.has_slice) return false;
    const AVPacket* wrapped = internal::WrappedPacket(packet);
    const bool key = opening.is_key || (wrapped != nullptr && wrapped->flags & AV_PKT_FLAG_KEY);
    const bool needed = (first_ || key) && !sets_came_ && !sets_.empty();
    first_ = false;
    // Once a byte stream has brought parameter sets of its own it is left unchanged: those of the
    // container may be older.
    if (length_prefixed_) sets_came_ = false;
    return needed;
  }

  // Inserts the parameter sets into the Annex B packet if necessary. Returns: FFmpeg's code.
  int AddSetsWhereNeeded(std::shared_ptr<StreamPacket>& packet) {
    const Opening opening = Examine(*packet);
    if (!NeedsSets(packet, opening)) return 0;
    if (packet->size > kMaxBytes - sets_.size()) return AVERROR(EINVAL);
    AVPacket buffer;
    internal::InitPacket(buffer);
    int code = av_new_packet(&buffer, static_cast<int>(packet->size + sets_.size()));
    if (code != 0) return code;
    std::uint8_t* out = std::copy_n(packet->data, opening.sets_at, buffer.data);
    out = std::copy(sets_.begin(), sets_.end(), out);
    std::copy(packet->data + opening.sets_at, packet->data + packet->size, out);
    const AVPacket* wrapped = internal::WrappedPacket(packet);
    if (wrapped != nullptr) code = av_packet_copy_props(&buffer, wrapped);
    if (code == 0) {
      packet = internal::WrapPacket(buffer, packet->codec, internal::StampOf(packet));
    } else {
      av_packet_unref(&buffer);
    }
    return code;
  }

  // Makes `annexb` of the length-prefixed `packet`. Returns: FFmpeg's code.
  int Convert(const std::shared_ptr<StreamPacket>& packet, std::shared_ptr<StreamPacket>& annexb) {
    if (packet->size > kMaxBytes) return AVERROR(EINVAL);
    AVPacket bytes;  // stands for a packet that was not made by a demuxer; copied by the reference
    internal::InitPacket(bytes);
    bytes.data = packet->data;
    bytes.size = static_cast<int>(packet->size);
    AVPacket buffer;
    internal::InitPacket(buffer);
    const AVPacket* wrapped = internal::WrappedPacket(packet);
    int code = av_packet_ref(&buffer, wrapped != nullptr ? wrapped : &bytes);
    if (code == 0) code = av_bsf_send_packet(filter_.get(), &buffer);
    if (code == 0) code = av_bsf_receive_packet(filter_.get(), &buffer);
    if (code == 0 && buffer.size == 0) code = AVERROR_INVALIDDATA;  // empty NAL units alone
    if (code != 0) {
      av_packet_unref(&buffer);
      return code;
    }
    internal::PacketStamp stamp = internal::StampOf(packet);
    if (std::exchange(gap_, false)) stamp.discontinuity = true;
    annexb = internal::WrapPacket(buffer, packet->codec, stamp);
    return 0;
  }

  const bool length_prefixed_ = false;
  BsfPtr filter_;                   // for length-prefixed packets
  std::vector<std::uint8_t> sets_;  // the container's, as Annex B
  bool first_ = true;               // no picture was handed out yet
  bool sets_came_ = false;          // the stream's own, for the next picture
  bool gap_ = false;
};

AnnexBFilter::AnnexBFilter() = default;

AnnexBFilter::~AnnexBFilter() = default;

int AnnexBFilter::Init(const Demuxer& demuxer) {
  impl_.reset();
  if (const auto* ffmpeg = dynamic_cast<const FfmpegDemuxer*>(&demuxer)) return Init(*ffmpeg);
  if (dynamic_cast<const ReconnectingDemuxer*>(&demuxer) == nullptr) {
    LOG(ERROR) << "Annex B filter: a demuxer that is not of this library";
    return -1;
  }
  impl_ = std::make_unique<Impl>();
  return 0;
}

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

}  // namespace qx::utils::video
