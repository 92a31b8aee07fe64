#include "tests/testing/sps_writer.h"

namespace qx {
namespace testing {

BitWriter& BitWriter::U(unsigned int n, std::uint64_t value) {
  while (n-- > 0) bits_ += (value >> n & 1) != 0 ? '1' : '0';
  return *this;
}

BitWriter& BitWriter::Ue(std::uint64_t value) {
  unsigned int zeros = 0;
  while ((value + 1) >> (zeros + 1) != 0) ++zeros;
  return U(zeros, 0).U(zeros + 1, value + 1);
}

BitWriter& BitWriter::Se(std::int64_t value) {
  return Ue(static_cast<std::uint64_t>(value > 0 ? 2 * value - 1 : -2 * value));
}

BitWriter& BitWriter::Append(const BitWriter& other) {
  bits_ += other.bits_;
  return *this;
}

Bytes BitWriter::Nal(const Bytes& header) const {
  Bytes nal(3, 0);
  nal.push_back(1);
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

Bytes H264Sps::Stream() const {
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

Bytes H265Sps::Stream() const {
  const auto profile = [](BitWriter& w, std::uint32_t idc) {
    w.U(2, 0).U(1, 0).U(5, idc).U(32, 0x60000000).U(4, 9).U(44, 0);
  };
  BitWriter w;
  w.U(4, 1).U(3, max_sub_layers_minus1);
  if (max_sub_layers_minus1 < 7) {
    w.U(1, 1);
    profile(w, profile_idc);
    w.U(8, level_idc);
    for (const SubLayer& layer : sub_layers) w.U(1, layer.has_profile).U(1, layer.has_level);
    if (!sub_layers.empty()) w.U(16 - 2 * static_cast<unsigned int>(sub_layers.size()), 0);
    for (const SubLayer& layer : sub_layers) {
      if (layer.has_profile) profile(w, 2);
      if (layer.has_level) w.U(8, 90);
    }
  }
  w.Ue(sps_id).Ue(chroma_format_idc);
  if (chroma_format_idc == 3) w.U(1, 0);
  return w.Ue(width).Ue(height).Nal({0x42, 0x01});
}

}  // namespace testing
}  // namespace qx
