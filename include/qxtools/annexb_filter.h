// Turns the packets of every input into Annex B byte streams with parameter sets, which the
// parameter parsers and the decoder read. MP4 and MKV files use another form, and RTSP cameras may
// send their parameter sets only in the session description.
//
//   qx::utils::video::FfmpegDemuxer demuxer;
//   qx::utils::video::AnnexBFilter filter;
//   if (demuxer.Open("clip.mp4", {}) != 0 || filter.Init(demuxer) != 0) return;
//   while (auto packet = demuxer.ReadFrame()) {
//     if (auto annexb = filter.Filter(packet)) decoder->SendFrame(annexb, nullptr);
//   }
#pragma once

#include <memory>

#include "qxtools/export.h"
#include "qxtools/video.h"

namespace qx::utils::video {

class FfmpegDemuxer;

// Replaces length prefixes by start codes, and puts the container's parameter sets before the first
// picture and before each key picture that has none of its own. (Once a byte stream has brought
// parameter sets of its own, it is left unchanged.) Each packet that goes in yields one packet at
// once: nothing is held back, so there is nothing to drain. PacketTimesOf() returns the same for
// both.
//
// Threads: one thread at a time uses a filter; it need not be the demuxer's.
class QXTOOLS_EXPORT AnnexBFilter {
 public:
  AnnexBFilter();
  AnnexBFilter(const AnnexBFilter&) = delete;
  AnnexBFilter& operator=(const AnnexBFilter&) = delete;
  ~AnnexBFilter();

  // Prepares the filter for the stream that `demuxer` has selected. It copies what it needs: the
  // demuxer may be closed or reopened afterwards, and Init() may be called again with another one.
  //
  // Returns: 0; -1, with one ERROR line, when the demuxer has no input or no selected stream, or
  //          when the stream's parameter sets are damaged. Filter() then returns nothing.
  [[nodiscard]] int Init(const FfmpegDemuxer& demuxer);

  // The same for a demuxer behind the interface. A ReconnectingDemuxer need not have an input yet:
  // its packets are already in the right form and pass unchanged.
  // Returns: as above; -1, with one ERROR line, for demuxers that are not from this library.
  [[nodiscard]] int Init(const Demuxer& demuxer);

  // Converts one packet of that stream. Pass packets in the order in which they were read. Copies
  // made by the application are converted too; in those, key pictures are recognised by the type of
  // their slices (H.264: only IDR pictures).
  //
  // Output:  the same pointer if there is nothing to do: the packet is Annex B already and needs no
  //          parameter sets, or it is empty (size 0), which drains a decoder. Otherwise a new
  //          packet that owns its payload; the input packet is not changed.
  // Returns: empty for a null pointer and, with one ERROR line, before a successful Init() and for
  //          a damaged packet; filtering continues normally with the next packet.
  // Cost:    one copy of the payload where a new packet is made; none elsewhere.
  std::shared_ptr<StreamPacket> Filter(const std::shared_ptr<StreamPacket>& packet);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qx::utils::video
