// A demuxer that reconnects whenever its camera is lost.
//
//   qx::utils::video::ReconnectingDemuxer camera;
//   camera.SetStateCallback([](const qx::utils::video::ConnectionChange& change) { ... });
//   camera.Open("rtsp://camera.local/stream", {});  // ReadFrame() retries an unreachable camera
//   while (auto packet = camera.ReadFrame()) decoder->SendFrame(packet, nullptr);
//   // only Cancel() leads here
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "qxtools/export.h"
#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/video.h"

namespace qx::utils::video {

enum class ConnectionState {
  kOpen,     // the input was opened; packets follow
  kWaiting,  // the camera was lost or not reached; the next attempt follows a pause
  kEnded,    // a local file has ended or cannot be opened; there is no retry
};

// The argument of the state callback.
struct ConnectionChange {
  ConnectionState state;
  DemuxerFault reason;              // why the connection left its previous state; kNone for kOpen
  std::uint32_t failures;           // attempts that have failed since a camera was last open
  std::chrono::milliseconds pause;  // kWaiting: until the next attempt; otherwise zero
};

// When a camera counts as lost, and how long to wait before it is tried again.
struct ReconnectPolicy {
  // The first pause. Each further pause is twice as long, up to `longest_pause`, until a connection
  // has delivered packets for longer than the last pause. Each is shortened by a random amount of
  // up to a fifth, so that the clients of a restarted server do not all return at the same moment.
  std::chrono::milliseconds first_pause{500};
  std::chrono::milliseconds longest_pause{30000};
  // A connection that brings no picture for this long is closed, even if audio or keep-alive
  // messages arrive: that is what a hung encoder looks like, and also a link that needs longer for
  // one picture. Zero: never. A camera that sends nothing at all is dropped within 10 s.
  std::chrono::milliseconds longest_silence{30000};
};

// Reads one camera and reconnects when it is lost, for as long as the application calls
// ReadFrame(). Everything happens within Open() and ReadFrame(): the object has no thread.
//
// A lost connection is closed before the next one is opened, so cameras that allow a single session
// work too. The pauses grow whatever the reason was, a wrong password included, so that dozens of
// attempts a minute do not lock an account.
//
// The class is meant for live streams. A local file is opened once and read to its end; a recording
// on a server starts over.
//
// Threads: one thread at a time uses an object; only Cancel() and ClearCancel() may be called from
//          other threads. The state callback runs on the thread that is inside Open() or
//          ReadFrame(), with no lock held; the only member it may call is Cancel(). It must not
//          throw.
class QXTOOLS_EXPORT ReconnectingDemuxer : public Demuxer {
 public:
  explicit ReconnectingDemuxer(const ReconnectPolicy& policy = {});
  ReconnectingDemuxer(const ReconnectingDemuxer&) = delete;
  ReconnectingDemuxer& operator=(const ReconnectingDemuxer&) = delete;

  // Closes the input. No call may be in progress: Cancel() ends one.
  ~ReconnectingDemuxer() override;

  // Sets the receiver of changes; an empty one stops them. Call it before Open().
  void SetStateCallback(std::function<void(const ConnectionChange&)> callback);

  // Closes the current input and tries once to open `url`.
  //
  // Returns: 0; -1 when this attempt failed: LastFault() tells why. ReadFrame() then tries again,
  //          so an unattended program may ignore the result.
  // Cost:    as FfmpegDemuxer::Open().
  int Open(const std::string& url, const Config& config) override;

  // Reads the next packet, over as many connections as that takes.
  //
  // Output:  an Annex B packet, whatever the container's framing, with the parameter sets before
  //          key pictures if the stream itself has none: ready for a decoder. PacketTimesOf() marks
  //          the first packet after a gap as a `discontinuity`; times before and after it are
  //          unrelated.
  // Returns: empty when cancelled (kCancelled), at the end of a local file (kEndOfStream), and
  //          before Open() or after a local file that does not open (kNotOpen).
  std::shared_ptr<StreamPacket> ReadFrame() override;

  // Returns: why the last Open() or ReadFrame() failed; kNone if it succeeded.
  DemuxerFault LastFault() const;

  // Returns: the demuxer of the current connection, for questions about the stream. Do not read
  // packets from it.
  const FfmpegDemuxer& Connection() const;

  // Makes the call in progress return within 0.2 s (looking up a host name may take longer) and
  // later calls at once, with nothing and kCancelled, until ClearCancel(). The connection stays
  // open if possible, and reading continues after ClearCancel(). Not safe in a signal handler.
  void Cancel();
  void ClearCancel();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qx::utils::video
