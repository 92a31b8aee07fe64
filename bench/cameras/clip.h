// The pictures of a raw file, and how what a camera sent of it differs.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "qxtools/video.h"

namespace qx::bench {

// The access units of a raw H.264 or H.265 file, every NAL unit after a start code of four bytes.
class CameraClip {
 public:
  // `loose`: slices alone are kept, for servers that send parameter sets and delimiters of their
  // own.
  CameraClip(const std::string& path, bool loose);

  std::size_t size() const { return pictures_.size(); }
  const std::string& picture(std::size_t i) const { return pictures_[i % pictures_.size()]; }
  // Returns: the picture with these bytes; size() when there is none.
  std::size_t Find(const std::string& bytes) const;
  // Returns: a packet's bytes as the pictures here are kept.
  std::string Normalise(const std::uint8_t* data, std::size_t size) const;
  // Returns: whether decoding can begin at `bytes`.
  bool IsKey(const std::string& bytes) const;

 private:
  int TypeOf(std::uint8_t first_byte) const;

  bool loose_;
  utils::video::VideoCodec codec_ = utils::video::kVideoCodecH264;
  std::vector<std::string> pictures_;
  std::unordered_map<std::string, std::size_t> index_;
};

// Follows one reader of a camera that sends a clip over and over.
class Comparison {
 public:
  // `rate`: pictures a second.
  Comparison(const CameraClip& clip, double rate) : clip_(clip), rate_(rate) {}

  // `seconds`: the presentation time; NaN if unknown.
  void Take(const std::uint8_t* data, std::size_t size, double seconds, bool key, bool gap);

  std::size_t packets = 0;
  std::size_t different = 0;  // bytes that are no picture of the clip
  std::size_t missing = 0;    // pictures that were skipped, not at a gap
  std::size_t gaps = 0;       // marked as such
  std::size_t late_starts =
      0;                // times that the first packet, or one after a gap, was not picture 0
  std::size_t cut = 0;  // the last picture before a gap, ended by the loss of the connection
  std::size_t wrong_keys = 0;
  std::size_t without_time = 0;
  double worst_time = 0;  // s between two neighbours' times and what the rate says

 private:
  // Returns: how many pictures the clip went on by; 0 when that is unknown.
  std::size_t Advance(const std::string& bytes);
  void CheckTime(double seconds, std::size_t steps);

  const CameraClip& clip_;
  const double rate_;
  std::size_t next_ = 0;
  bool found_ = false;   // whether next_ is known
  bool broken_ = false;  // the last packet was the beginning of a picture
  double last_seconds_ = NAN;
};

}  // namespace qx::bench
