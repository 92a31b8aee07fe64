// The demuxer for everything FFmpeg can open: files, network streams and, above all, RTSP cameras.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "qxtools/export.h"
#include "qxtools/packet_times.h"
#include "qxtools/video.h"

struct AVFormatContext;

namespace qx::utils::internal {
class InputWatch;
}  // namespace qx::utils::internal

namespace qx::utils::video {

// Why a call of FfmpegDemuxer returned nothing.
enum class DemuxerFault {
  kNone,                  // the last call succeeded
  kRefused,               // connection refused, no such file, no permission, or an error reply
  kTimedOut,              // no data in time, or the limit of SetTimeLimit() passed
  kClosedByPeer,          // the peer closed the connection, or (RTSP) sent an invalid reply
  kEndOfStream,           // the file is at its end
  kMalformed,             // the file is not media, or is too damaged to read
  kCancelled,             // Cancel() is in force
  kNoVideoStream,         // the input has no H.264 or H.265 stream
  kNotOpen,               // ReadFrame() without an input
  kOther,                 // none of the others; the log holds FFmpeg's code
  kUnreachable,           // the host name is unknown, or there is no route to it
  kLost,                  // the connection is no longer usable: open the input again
  kUnsupportedTransport,  // the server refuses RTP over the control connection (TCP)
};

// Timeouts for RTSP cameras.
struct RtspTimeLimits {
  std::chrono::seconds wait;  // for the camera's next byte
  std::chrono::seconds open;  // for Open(), not counting the host lookup and closing the last input
};
[[nodiscard]] QXTOOLS_EXPORT RtspTimeLimits GetRtspTimeLimits();

// What the container says of the chosen stream.
struct StreamTimes {
  std::int32_t rate_num;  // pictures a second are rate_num / rate_den on average; 0 / 1 if unknown
  std::int32_t rate_den;
  std::int64_t duration_us;  // kNoTime if unknown, as it is for cameras
};

// Hands out the packets of the first H.264 or H.265 stream of an input, without copying them.
//
// Threads: one thread at a time uses a demuxer; only Cancel() and ClearCancel() may be called from
//          other threads. Packets may be released on any thread and may outlive the demuxer.
// Cost:    two small allocations per packet. For an input that is not a local file, FFmpeg runs on
//          a separate stack: 1 MiB of address space, of which only the part in use takes memory.
class QXTOOLS_EXPORT FfmpegDemuxer : public Demuxer {
 public:
  // Creates a demuxer with no open input and no time limit.
  FfmpegDemuxer();
  FfmpegDemuxer(const FfmpegDemuxer&) = delete;
  FfmpegDemuxer& operator=(const FfmpegDemuxer&) = delete;

  // Closes the input.
  ~FfmpegDemuxer() override;

  // Opens a file path or stream URL in place of the current input and selects its first H.264 or
  // H.265 stream; streams of other kinds before it are logged at ERROR. RTSP media are received
  // over the control connection (TCP), and a camera that is silent for 3 s fails the call. The new
  // input is opened before the current one is closed: call Close() first for a camera that serves
  // one client at a time.
  //
  // Returns: 0; -1 when the input cannot be opened or read (no input is open then), or has no such
  //          stream (the input stays open, but ReadFrame() finds nothing in it). Open() may be
  //          called again after either. If the time limit passes while the streams are being
  //          probed, as happens with cameras that send a few pictures a second, and an H.264 or
  //          H.265 stream is already known, the result is 0: probing continues with the first
  //          packets, none of which is lost.
  // Cost:    at most 8 s for RTSP, or 0.2 s after the limit of SetTimeLimit(); looking up the host
  //          name and closing the current input are extra. Other inputs have no bound of their own.
  int Open(const std::string& url, const Config& config) override;

  // Reads the next packet of the selected stream. Failed reads and empty packets are logged at
  // ERROR and counted; each failed read is followed by a pause of 1 ms.
  //
  // Output:  the packet in the container's own framing: Annex B from raw streams, MPEG-TS and RTSP,
  //          length-prefixed from MP4 and MKV. MP4 and RTSP packets may come without parameter
  //          sets: some cameras send them only in the session description. AnnexBFilter
  //          (annexb_filter.h) turns packets of every kind into what parsers and decoders read.
  //          PacketTimesOf() (packet_times.h) returns a packet's times. Over RTSP the sender's wall
  //          clock is known after its first report (RTCP), which most cameras send within 5 s;
  //          later reports correct it. It is as accurate as the sender's clock.
  //          FFmpeg knows that an RTSP picture is complete when the next one begins: a picture is
  //          returned when its successor arrives, or when the connection ends.
  // Returns: empty at the third failure within one call, which is also how a file ends; at once
  //          when a time limit has passed or Cancel() is in force. The demuxer stays usable: the
  //          next call continues where this one stopped, even in the middle of a packet, so nothing
  //          is lost. The exception is an RTSP connection that ends, or is silent for more than
  //          3 s, in the middle of a packet: FFmpeg drops the rest of that packet. Its picture may
  //          be returned cut short; if FFmpeg reports the break the result is kLost: call Open()
  //          again.
  // Cost:    RTSP: at most 10 s after the last packet of any stream, or after the call when none
  //          comes. While a camera sends audio only, a call waits for video without a bound; if
  //          Open() found no stream, at most 10 s. SetTimeLimit() bounds every call.
  std::shared_ptr<StreamPacket> ReadFrame() override;

  // Closes the input. Open() closes the current input only after the new one is open: a camera that
  // serves one session at a time must be closed first.
  void Close();

  // Opens and probes `url`; takes at most 11 s for RTSP. Returns: the input, which is closed with
  // the last copy of the pointer and may outlive the demuxer. Empty on failure, with the reason in
  // the log at ERROR.
  std::shared_ptr<AVFormatContext> CreateFormatContext(std::string url);

  // Selects the first H.264 or H.265 stream of `ctx`; packets read later carry its codec.
  // Output:  stream_index  its index; -1 when there is none; untouched when `ctx` is empty.
  // Returns: 0; -1 when there is none or `ctx` is empty.
  int GetStreamInfo(std::shared_ptr<AVFormatContext> ctx, int& stream_index);

  // Returns: the selected stream's index in the container; -1 before the first successful Open().
  int VideoStreamIndex() const { return video_stream_index_; }

  // Returns: rate and length of the selected stream; unknown while no stream is selected and while
  // a camera is still being probed.
  StreamTimes GetStreamTimes() const;

  // Returns: why the last Open() or ReadFrame() failed; kNone if it succeeded. Unlike FFmpeg's
  // codes it distinguishes a dead camera from the end of a file.
  DemuxerFault LastFault() const;

  // Limits the duration of each later Open() and ReadFrame(): they return at most 0.2 s after it.
  // Zero (the default), negative values and milliseconds::max() mean no limit. It applies while
  // FFmpeg waits for a network; reads of a local file or pipe are not interrupted. Nothing is lost
  // when the limit passes within ReadFrame(): the next call continues. A short limit therefore
  // turns ReadFrame() into a poll.
  void SetTimeLimit(std::chrono::milliseconds limit);

  // Makes the call in progress return within 0.2 s (looking up a host name may take longer) and
  // later calls at once, with nothing and kCancelled, until ClearCancel(). A cancelled Open()
  // fails; after a cancelled ReadFrame(), reading continues without loss. Safe from any thread, but
  // not from a signal handler.
  void Cancel();
  void ClearCancel();

 private:
  friend class AnnexBFilter;

  std::shared_ptr<AVFormatContext> avformat_cxt_;
  VideoCodec codec_ = kVideoCodecH264;
  std::int32_t video_stream_index_ = -1;
  std::shared_ptr<internal::InputWatch> watch_;  // shared with the input, which it may outlive
};

}  // namespace qx::utils::video
