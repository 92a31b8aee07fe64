// Writes sequence parameter sets bit by bit, as an encoder would.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qxtools/h264_h265_info_parse.h"

namespace qx {
namespace testing {

using Bytes = std::vector<std::uint8_t>;

class BitWriter {
 public:
  BitWriter& U(unsigned int n, std::uint64_t value);
  BitWriter& Ue(std::uint64_t value);
  BitWriter& Se(std::int64_t value);
  BitWriter& Append(const BitWriter& other);

  // A start code, `header`, and the bits with stop bit, padding and emulation prevention.
  Bytes Nal(const Bytes& header) const;

 private:
  std::string bits_;  // '0' and '1'
};

struct H264Sps {
  std::uint32_t profile_idc = 100, level_idc = 40, chroma_format_idc = 1;
  BitWriter scaling_lists;  // flags and lists
  bool has_scaling_lists = false;
  std::uint32_t poc_type = 0;
  std::uint64_t poc_cycle = 0;  // as written, whatever ref_frame_offsets holds
  std::vector<std::int64_t> ref_frame_offsets = {};
  std::uint64_t width_minus1 = 119, height_minus1 = 67;
  bool frame_mbs_only = true;
  std::vector<std::uint64_t> crop = {};  // left, right, top, bottom

  void Crop(std::uint64_t left, std::uint64_t right, std::uint64_t top, std::uint64_t bottom) {
    crop = {left, right, top, bottom};
  }
  Bytes Stream() const;
};

struct SubLayer {
  bool has_profile, has_level;
};

struct H265Sps {
  std::uint32_t max_sub_layers_minus1 = 0, profile_idc = 1, level_idc = 120;
  std::vector<SubLayer> sub_layers = {};
  std::uint64_t sps_id = 0, chroma_format_idc = 1, width = 1920, height = 1088;

  Bytes Stream() const;
};

inline std::array<std::uint64_t, 7> Fields(const qx::utils::VideoParams& p) {
  return {p.width,         p.height, p.profile_idc, p.level_idc, p.chroma_format_idc,
          p.nal_unit_type, p.is_h265};
}

}  // namespace testing
}  // namespace qx
