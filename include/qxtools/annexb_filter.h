// Packets of MP4 and MKV files as Annex B byte streams, which the parameter parsers and the decoder
// read.
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

namespace qx {
namespace utils {
namespace video {

class FfmpegDemuxer;

// Turns length-prefixed packets into start codes, and puts the parameter sets in front of key
// frames where the stream itself carries none. One packet comes out for each that goes in, at
// once: nothing is held back, so there is nothing to drain.
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

  // Converts one packet of that stream; packets go in in the order in which they were read.
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

}  // namespace video
}  // namespace utils
}  // namespace qx
