// The demuxer for everything FFmpeg can open: files and network streams, RTSP cameras above all.
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

// Why a call of FfmpegDemuxer gave nothing.
enum class DemuxerFault {
  kNone,                  // the last call succeeded
  kRefused,               // connection refused, no such file, no permission, or an error reply
  kTimedOut,              // no data in time, or the limit of SetTimeLimit() passed
  kClosedByPeer,          // the network peer ended the connection, or (RTSP) answered with nonsense
  kEndOfStream,           // the file is at its end
  kMalformed,             // the file is not media, or damaged beyond reading
  kCancelled,             // Cancel() is in force
  kNoVideoStream,         // the input has no H.264 or H.265 stream
  kNotOpen,               // ReadFrame() without an input
  kOther,                 // none of the others; the log holds FFmpeg's code
  kUnreachable,           // the host's name is unknown, or no way leads to it
  kLost,                  // the connection cannot be used any further: open the input again
  kUnsupportedTransport,  // the server refuses RTP over the control connection (TCP)
};

// What the demuxer puts up with from an RTSP camera.
struct RtspTimeLimits {
  std::chrono::seconds wait;  // for the camera's next byte
  std::chrono::seconds open;  // for all of Open(), the host's name and closing the last input aside
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
// Threads: one demuxer is used by one thread at a time; Cancel() and ClearCancel() alone may be
//          called from any other. Packets are released on any thread and may outlive the demuxer.
// Cost:    two small allocations per packet. An input that is not a local file has a stack of its
//          own for FFmpeg's calls: 1 MiB of addresses, of which what is used takes memory.
class QXTOOLS_EXPORT FfmpegDemuxer : public Demuxer {
 public:
  // No input open; no time limit.
  FfmpegDemuxer();
  FfmpegDemuxer(const FfmpegDemuxer&) = delete;
  FfmpegDemuxer& operator=(const FfmpegDemuxer&) = delete;

  // Closes the input.
  ~FfmpegDemuxer() override;

  // Opens a file path or stream URL in place of the present input and chooses its first H.264 or
  // H.265 stream; streams of other kinds that come before it are named in the log at ERROR. RTSP
  // media travel over the control connection (TCP); a wait of more than 3 s for the camera fails.
  // The new input is opened before the present one is closed: Close() first where a camera serves
  // one client at a time.
  //
  // Returns: 0; -1 when the input cannot be opened or read (no input is open then), or has no such
  //          stream (the input stays open and ReadFrame() finds nothing in it). The demuxer can be
  //          opened again after either. Where the time is up while the streams are being probed,
  //          as with cameras of a few pictures a second, and an H.264 or H.265 stream is known, the
  //          result is 0: the rest is learned with the first packets, none of which is lost.
  // Cost:    within 8 s for RTSP, or 0.2 s after the limit of SetTimeLimit(). Looking up the host's
  //          name and closing the present input come on top. Other inputs: no bound of their own.
  int Open(const std::string& url, const Config& config) override;

  // Reads on to the next packet of the chosen stream. Failed reads and empty packets are logged
  // at ERROR and counted; a failed read is followed by a pause of 1 ms.
  //
  // Output:  the packet with the container's own framing: Annex B from raw streams, MPEG-TS and
  //          RTSP, length-prefixed from MP4 and MKV. Neither MP4 nor RTSP need have parameter sets
  //          in the packets: cameras may tell them in the session description alone. AnnexBFilter
  //          (annexb_filter.h) makes packets of every kind ready for parsers and decoders.
  //          PacketTimesOf() (packet_times.h) tells a packet's times. Over RTSP, the sender's wall
  //          clock is known from its first report (RTCP) on, which most send within 5 s; later
  //          reports correct it. It is as right as the sender's clock.
  //          FFmpeg takes an RTSP picture for complete when the next one begins: a picture comes
  //          when its successor arrives, or when the connection ends.
  // Returns: empty at the third failure of one call, which is also the sign of the end of a file;
  //          at once when a time limit has passed or Cancel() is in force. The demuxer stays
  //          usable: a later call tries again, after a limit or a cancel in the middle of the
  //          packet, so that nothing is lost. The exception is an RTSP connection that ends, or is
  //          silent for more than 3 s, in the middle of a packet: FFmpeg gives that packet up. Its
  //          picture can come out cut short, and where FFmpeg reports the break the result is
  //          kLost: Open() the input again.
  // Cost:    RTSP: within 10 s of the last packet of any stream, or of the call when none comes.
  //          While a camera sends audio, a call waits for its video without a bound; where Open()
  //          found no stream, within 10 s of the call. SetTimeLimit() bounds every call.
  std::shared_ptr<StreamPacket> ReadFrame() override;

  // Closes the input; nothing is open then. Open() closes the present input only after the new one
  // was opened: a camera that serves one session at a time has to be closed before.
  void Close();

  // Opens and probes `url`, RTSP within 11 s. Returns: the input, closed with the last copy of the
  // pointer; it may outlive the demuxer. Empty on failure, with the reason in the log at ERROR.
  std::shared_ptr<AVFormatContext> CreateFormatContext(std::string url);

  // Chooses the first H.264 or H.265 stream of `ctx`; the packets read later carry its codec.
  // Output:  stream_index  its index; -1 when there is none; untouched when `ctx` is empty.
  // Returns: 0; -1 when there is none or `ctx` is empty.
  int GetStreamInfo(std::shared_ptr<AVFormatContext> ctx, int& stream_index);

  // Returns: the chosen stream's index in the container; -1 before the first successful Open().
  int VideoStreamIndex() const { return video_stream_index_; }

  // Returns: rate and length of the chosen stream; unknown ones while no stream is chosen, and of
  // a camera that is still being probed.
  StreamTimes GetStreamTimes() const;

  // Returns: the cause of the last Open() or ReadFrame(); kNone when it gave 0 or a packet.
  // FFmpeg's codes cannot tell a dead camera from the end of a file; this does.
  DemuxerFault LastFault() const;

  // Limits each later Open() and ReadFrame() as a whole: they return at most 0.2 s after it. Zero,
  // the default, less than zero and milliseconds::max() mean no limit. It applies where FFmpeg
  // waits for a network; a read of a local file or pipe is not interrupted. Nothing is lost when a
  // limit passes within ReadFrame(): the next call goes on. So a short limit makes ReadFrame() a
  // poll.
  void SetTimeLimit(std::chrono::milliseconds limit);

  // Makes the call in progress return within 0.2 s, the lookup of a host's name aside, and later
  // ones at once, with nothing and kCancelled, until ClearCancel(). An Open() that is cancelled
  // fails; after a ReadFrame() that is, reading goes on without loss. Safe from any thread; not to
  // be called by a signal handler.
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
