// Packets of every input as Annex B byte streams with parameter sets, which the parameter parsers
// and the decoder read: MP4 and MKV files hold another form, and RTSP cameras may tell the
// parameter sets in the session description alone.
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

// Turns length-prefixed packets into start codes, and puts the container's parameter sets before
// the first picture and before each key picture that has none of its own. (A byte stream that has
// shown parameter sets of its own is left alone from then on.) One packet comes out for each that
// goes in, at once: nothing is held back, so there is nothing to drain. PacketTimesOf() says the
// same of it.
//
// Threads: one filter is used by one thread at a time, which need not be the demuxer's.
class QXTOOLS_EXPORT AnnexBFilter {
 public:
  AnnexBFilter();
  AnnexBFilter(const AnnexBFilter&) = delete;
  AnnexBFilter& operator=(const AnnexBFilter&) = delete;
  ~AnnexBFilter();

  // Prepares for the packets of the stream that `demuxer` has chosen. What is needed is copied: the
  // demuxer may be closed or reopened afterwards, and the filter be prepared again for another.
  //
  // Returns: 0; -1, with one ERROR line, when the demuxer has no input or no chosen stream, or when
  //          the stream's parameter sets are damaged. Filter() gives nothing then.
  [[nodiscard]] int Init(const FfmpegDemuxer& demuxer);

  // The same for whoever holds the interface. The packets of a ReconnectingDemuxer are ready and
  // pass as they are, so that it need not have an input yet.
  // Returns: as above; -1, with one ERROR line, for demuxers that are not of this library.
  [[nodiscard]] int Init(const Demuxer& demuxer);

  // Converts one packet of that stream; packets go in in the order in which they were read. Copies
  // that the application has made itself are converted too; of those, the key pictures are known
  // by their slices' type (H.264: IDR pictures alone).
  //
  // Output:  the same pointer where nothing is to be done: a packet that is Annex B already and
  //          needs no parameter sets, and an empty packet (size 0), which drains a decoder.
  //          Otherwise a new packet that owns its payload, as StreamPacket says; the input is
  //          left as it was.
  // Returns: empty for a null pointer, and, with one ERROR line, before a successful Init() and for
  //          a damaged packet; the next packet may be given as if nothing had happened.
  // Cost:    one copy of the payload where a new packet is made; none elsewhere.
  std::shared_ptr<StreamPacket> Filter(const std::shared_ptr<StreamPacket>& packet);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qx::utils::video
