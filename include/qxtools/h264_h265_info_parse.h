// Picture size, profile and level from the first sequence parameter set of a byte stream.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qxtools/export.h"

namespace qx::utils {

// The contents of a sequence parameter set (SPS). Fields that were not read are 0; the parse has
// succeeded if the picture size is not 0 x 0.
struct VideoParams {
  std::uint64_t width;              // luma samples
  std::uint64_t height;             // luma samples
  std::uint32_t profile_idc;        // H.264 profile_idc, H.265 general_profile_idc
  std::uint32_t level_idc;          // H.264: 10 x the level; H.265: 30 x the level
  std::uint32_t chroma_format_idc;  // 0 grey, 1 4:2:0, 2 4:2:2, 3 4:4:4; stored as it was read
  std::uint32_t nal_unit_type;      // of the last NAL unit header that the search examined
  std::uint32_t is_h265;            // 1 from ParseH265Params, 0 from ParseH264Params
};

// Reads the first SPS of an H.264 byte stream, for example of a packet in Annex B form.
//
// Inputs:  data, size  NAL units after 4-byte start codes (00 00 00 01; NAL units after 3-byte
//                      codes are skipped). Borrowed for the call; a null `data` is an empty
//                      buffer. Only headers in the first 2^31 - 1 bytes are found.
// Returns: the display size, i.e. after frame cropping; cropping that exceeds the coded size makes
//          that dimension 0. Without an SPS the size is 0 x 0.
// Errors:  none are reported and nothing is thrown. Bits missing from a truncated SPS read as 0;
//          values out of range are used as they are.
// Threads: reentrant.
// Cost:    scans up to the SPS at memory speed, or the whole buffer when there is none; then the
//          SPS is read bit by bit. A damaged one may make that linear in the bytes from the SPS to
//          the end of the buffer. No allocation unless verbose logging is on.
QXTOOLS_EXPORT VideoParams ParseH264Params(const char* data, std::size_t size);

// The same for H.265, with these differences.
//
// Returns: the coded size: the conformance window is not applied. The size stays 0 x 0 when
//          sps_seq_parameter_set_id is above 15 or chroma_format_idc above 3.
QXTOOLS_EXPORT VideoParams ParseH265Params(const char* data, std::size_t size);

}  // namespace qx::utils
