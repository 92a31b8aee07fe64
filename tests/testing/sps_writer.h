// Writes sequence parameter sets bit by bit, as an encoder would.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "qxtools/h264_h265_info_parse.h"

namespace qx::testing {

using Bytes = std::vector<std::uint8_t>;

class BitWriter {
 public:
  BitWriter& U(unsigned int n, std::uint64_t value) {
    while (n-- > 0) bits_ += (value >> n & 1) != 0 ? '1' : '0';
    return *this;
  }
  BitWriter& Ue(std::uint64_t value) {
    unsigned int zeros = 0;
    while ((value + 1) >> (zeros + 1) != 0) ++zeros;
    return U(zeros, 0).U(zeros + 1, value + 1);
  }
  BitWriter& Se(std::int64_t value) {
    return Ue(static_cast<std::uint64_t>(value > 0 ? 2 * value - 1 : -2 * value));
  }
  BitWriter& Append(const BitWriter& other) {
    bits_ += other.bits_;
    return *this;
  }

  // A start code, `header`, and the bits with stop bit, padding and emulation prevention.
  Bytes Nal(const Bytes& header) const {
    Bytes nal = {0, 0, 0, 1};
    nal.insert(nal.end(), header.begin(), header.end());
    const std::string bits = bits_ + "1" + std::string(7 - bits_.size() % 8, '0');
    unsigned int zeros = 0;
    for (std::size_t i = 0; i < bits.size(); i += 8) {
      const auto byte = static_cast<std::uint8_t>(std::stoi(bits.substr(i, 8), nullptr, 2));
      if (zeros == 2 && byte <= 3) {
        nal.push_back(3);
        zeros = 0;
      }
      zeros = byte == 0 ? zeros + 1 : 0;
      nal.push_back(byte);
    }
    return nal;
  }

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

  Bytes Stream() const {
    BitWriter w;
    w.U(8, profile_idc).U(8, 0).U(8, level_idc).Ue(0);
    if (profile_idc >= 100 || profile_idc == 44 || profile_idc == 83 || profile_idc == 86) {
      w.Ue(chroma_format_idc);
      if (chroma_format_idc == 3) w.U(1, 0);
      w.Ue(2).Ue(2).U(1, 0).U(1, has_scaling_lists).Append(scaling_lists);
    }
    w.Ue(4).Ue(poc_type);
    if (poc_type == 0) w.Ue(2);
    if (poc_type == 1) {
      w.U(1, 0).Se(-3).Se(7).Ue(poc_cycle);
      for (const std::int64_t offset : ref_frame_offsets) w.Se(offset);
    }
    w.Ue(4).U(1, 0).Ue(width_minus1).Ue(height_minus1).U(1, frame_mbs_only);
    if (!frame_mbs_only) w.U(1, 1);
    w.U(1, 1).U(1, !crop.empty());
    for (const std::uint64_t offset : crop) w.Ue(offset);
    return w.U(1, 0).Nal({0x67});
  }
};

struct H265Sps {
  using SubLayer = std::pair<bool, bool>;  // has a profile, has a level
  std::uint32_t max_sub_layers_minus1 = 0, profile_idc = 1, level_idc = 120;
  std::vector<SubLayer> sub_layers = {};
  std::uint64_t sps_id = 0, chroma_format_idc = 1, width = 1920, height = 1088;

  Bytes Stream() const {
    const auto profile = [](BitWriter& w, std::uint32_t idc) {
      w.U(2, 0).U(1, 0).U(5, idc).U(32, 0x60000000).U(4, 9).U(44, 0);
    };
    BitWriter w;
    w.U(4, 1).U(3, max_sub_layers_minus1);
    if (max_sub_layers_minus1 < 7) {
      w.U(1, 1);
      profile(w, profile_idc);
      w.U(8, level_idc);
      for (const auto& [has_profile, has_level] : sub_layers) w.U(1, has_profile).U(1, has_level);
      if (!sub_layers.empty()) w.U(16 - 2 * static_cast<unsigned int>(sub_layers.size()), 0);
      for (const auto& [has_profile, has_level] : sub_layers) {
        if (has_profile) profile(w, 2);
        if (has_level) w.U(8, 90);
      }
    }
    w.Ue(sps_id).Ue(chroma_format_idc);
    if (chroma_format_idc == 3) w.U(1, 0);
    return w.Ue(width).Ue(height).Nal({0x42, 0x01});
  }
};

inline std::array<std::uint64_t, 7> Fields(const qx::utils::VideoParams& p) {
  return {p.width,         p.height, p.profile_idc, p.level_idc, p.chroma_format_idc,
          p.nal_unit_type, p.is_h265};
}

}  // namespace qx::testing
