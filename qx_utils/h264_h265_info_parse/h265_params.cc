// H.265 sequence parameter set, clause 7.3.2.2, up to pic_height_in_luma_samples; the sub-layer
// part is profile_tier_level(), clause 7.3.3. Reads whose value is not used name the syntax
// element.
#include "qx_utils/h264_h265_info_parse/find_sps.h"

namespace qx::utils {
namespace {

constexpr CodecRules kRules{2, 1, 0x3F, 33, "found h265 SPS at "};
constexpr std::uint32_t kMaxSubLayersMinus1 = 6;
constexpr std::uint32_t kMaxSpsId = 15;
constexpr std::uint32_t kMaxChromaFormat = 3;

// The profile part, which the stream and each of its sub-layers share.
// Returns: profile_idc.
std::uint32_t ReadProfile(BitReader& r) {
  ReadBits(r, 2);  // profile_space
  ReadBits(r, 1);  // tier_flag
  const std::uint32_t profile_idc = ReadBits(r, 5);
  ReadBits(r, 32);  // profile_compatibility_flag[0..31]
  ReadBits(r, 1);   // progressive_source_flag
  ReadBits(r, 1);   // interlaced_source_flag
  ReadBits(r, 1);   // non_packed_constraint_flag
  ReadBits(r, 1);   // frame_only_constraint_flag
  ReadBits(r, 44);  // 43 reserved or constraint bits, one more bit
  return profile_idc;
}

void SkipSubLayers(BitReader& r, std::uint32_t count) {
  bool has_profile[kMaxSubLayersMinus1] = {};
  bool has_level[kMaxSubLayersMinus1] = {};
  for (std::uint32_t i = 0; i < count; ++i) {
    has_profile[i] = ReadBits(r, 1) != 0;
    has_level[i] = ReadBits(r, 1) != 0;
  }
  for (std::uint32_t i = count; i < 8 && count != 0; ++i) ReadBits(r, 2);  // reserved_zero_2bits
  for (std::uint32_t i = 0; i < count; ++i) {
    if (has_profile[i]) ReadProfile(r);
    if (has_level[i]) ReadBits(r, 8);  // sub_layer_level_idc
  }
}

void ReadProfileTierLevel(BitReader& r, std::uint32_t sub_layers, VideoParams& params) {
  ReadBits(r, 1);  // sps_temporal_id_nesting_flag
  params.profile_idc = ReadProfile(r);
  params.level_idc = ReadBits(r, 8);
  SkipSubLayers(r, sub_layers);
}

}  // namespace

VideoParams ParseH265Params(const char* data, std::size_t size) {
  VideoParams params{};
  params.is_h265 = 1;
  std::optional<BitReader> sps = OpenSps(data, size, kRules, params);
  if (!sps) return params;
  BitReader& r = *sps;
  ReadBits(r, 4);  // sps_video_parameter_set_id
  const std::uint32_t sub_layers = ReadBits(r, 3);
  if (sub_layers <= kMaxSubLayersMinus1) ReadProfileTierLevel(r, sub_layers, params);
  const std::uint32_t sps_id = ReadUE(r);
  if (sps_id > kMaxSpsId) return params;
  params.chroma_format_idc = ReadUE(r);
  if (params.chroma_format_idc > kMaxChromaFormat) return params;
  if (params.chroma_format_idc == 3) ReadBits(r, 1);  // separate_colour_plane_flag
  params.width = ReadUE(r);
  params.height = ReadUE(r);
  return params;
}

}  // namespace qx::utils
