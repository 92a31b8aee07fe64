// A demuxer for a camera that is to stay open: it connects again whenever the camera is lost.
//
//   qx::utils::video::ReconnectingDemuxer camera;
//   camera.SetStateCallback([](const qx::utils::video::ConnectionChange& change) { ... });
//   camera.Open("rtsp://camera.local/stream", {});  // an unreachable camera is tried again below
//   while (auto packet = camera.ReadFrame()) decoder->SendFrame(packet, nullptr);
//   // here after Cancel() alone
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
  kEnded,    // a local file is at its end or does not open, and nothing more is tried
};

// What the state callback is told.
struct ConnectionChange {
  ConnectionState state;
  DemuxerFault reason;              // why the state was left for this one; kNone for kOpen
  std::uint32_t failures;           // attempts that have failed since a camera was last open
  std::chrono::milliseconds pause;  // kWaiting: until the next attempt; otherwise zero
};

// When a camera counts as lost, and how long to wait before it is tried again.
struct ReconnectPolicy {
  // The first pause. Each further one is twice as long, up to `longest_pause`, until a connection
  // has given packets for longer than the last pause. Each is shortened by up to a fifth at random,
  // lest the clients of a server that was restarted all come back in the same moment.
  std::chrono::milliseconds first_pause{500};
  std::chrono::milliseconds longest_pause{30000};
  // A connection without a picture for this long is given up, even though audio or keep-alive
  // messages arrive: an encoder that hangs looks like this, and so does a link that takes longer
  // for one picture. Zero: never. A camera that sends nothing at all is given up within 10 s.
  std::chrono::milliseconds longest_silence{30000};
};

// Reads one camera and opens it again when it is lost, for as long as the application asks for
// packets. Everything happens within Open() and ReadFrame(): there is no thread behind it.
//
// A lost connection is closed before the next one is opened, so that cameras with a single session
// can be used. Whatever the reason was, a wrong password included, the pauses grow: an account is
// not locked by dozens of attempts in a minute.
//
// It is meant for live streams. A local file is opened once, and its end is the end; a recording on
// a server starts over.
//
// Threads: one object is used by one thread at a time; Cancel() and ClearCancel() alone may be
//          called from any other. The state callback runs on the thread that is inside Open() or
//          ReadFrame(), with no lock held; it may call Cancel(), and nothing else of the object.
//          It must not throw.
class QXTOOLS_EXPORT ReconnectingDemuxer : public Demuxer {
 public:
  explicit ReconnectingDemuxer(const ReconnectPolicy& policy = {});
  ReconnectingDemuxer(const ReconnectingDemuxer&) = delete;
  ReconnectingDemuxer& operator=(const ReconnectingDemuxer&) = delete;

  // Closes the input. No call may be in progress: Cancel() ends one.
  ~ReconnectingDemuxer() override;

  // Sets the receiver of changes; an empty one stops them. Call it before Open().
  void SetStateCallback(std::function<void(const ConnectionChange&)> callback);

  // Takes `url` in place of the present input, which is closed, and tries to open it once.
  //
  // Returns: 0; -1 when this attempt failed: LastFault() tells why. ReadFrame() then tries again,
  //          so that a program that runs unattended need not look at the result.
  // Cost:    as FfmpegDemuxer::Open().
  int Open(const std::string& url, const Config& config) override;

  // Reads on to the next packet, through as many connections as that takes.
  //
  // Output:  an Annex B packet, whatever the container's framing, with the parameter sets in front
  //          of key pictures where the stream itself carries none: a decoder can take each one. Of
  //          the first packet after a gap PacketTimesOf() says `discontinuity`; the times before
  //          it and after it have nothing to do with each other.
  // Returns: empty when cancelled (kCancelled), at the end of a local file (kEndOfStream), and
  //          before Open() or after a local file that does not open (kNotOpen).
  std::shared_ptr<StreamPacket> ReadFrame() override;

  // Returns: the cause of the last Open() or ReadFrame(); kNone after a success.
  DemuxerFault LastFault() const;

  // Returns: the demuxer of the present connection, to be asked about the stream. Do not read it.
  const FfmpegDemuxer& Connection() const;

  // Makes the call in progress return within 0.2 s, the lookup of a host's name aside, and later
  // ones at once, with nothing and kCancelled, until ClearCancel(). The connection stays open where
  // it can: reading goes on after ClearCancel(). Not to be called by a signal handler.
  void Cancel();
  void ClearCancel();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qx::utils::video
