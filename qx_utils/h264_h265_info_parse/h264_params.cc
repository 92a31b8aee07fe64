// H.264 sequence parameter set, clause 7.3.2.1.1, up to vui_parameters_present_flag. Every ue(v)
// and se(v) is read with ReadUE; reads whose value is not used name the syntax element.
#include <glog/logging.h>

#include "qx_utils/h264_h265_info_parse/find_sps.h"

namespace qx::utils {
namespace {

constexpr CodecRules kRules{1, 0, 0x1F, 7, "found h264 SPS at "};

// Profiles whose SPS carries the chroma format, the bit depths and scaling lists.
bool HasChromaFormat(std::uint32_t profile_idc) {
  switch (profile_idc) {
    case 100:
    case 110:
    case 122:
    case 244:
    case 44:
    case 83:
    case 86:
    case 118:
    case 128:
    case 138:
    case 139:
    case 134:
    case 135:
      return true;
    default:
      return false;
  }
}

// scaling_list(), clause 7.3.2.1.1.1: the scales are kept modulo 256, and a next scale of 0 means
// that the last one repeats and no more codes follow.
void SkipScalingList(BitReader& r, unsigned int length) {
  std::uint32_t scale = 8;
  for (unsigned int i = 0; i < length && scale != 0; ++i) {
    const std::uint32_t code = ReadUE(r);
    const std::uint32_t delta_scale = code % 2 == 0 ? 0U - code / 2 : code / 2 + 1;
    scale = (scale + delta_scale) % 256;
  }
}

void SkipScalingMatrix(BitReader& r, std::uint32_t chroma_format_idc) {
  const unsigned int lists = chroma_format_idc == 3 ? 12 : 8;
  for (unsigned int i = 0; i < lists; ++i) {
    const bool present = ReadBits(r, 1) != 0;
    if (present) SkipScalingList(r, i < 6 ? 16 : 64);  // six lists for 4x4 blocks, the rest 8x8
  }
}

void ReadChromaFormat(BitReader& r, VideoParams& params) {
  params.chroma_format_idc = ReadUE(r);
  if (params.chroma_format_idc == 3) ReadBits(r, 1);  // separate_colour_plane_flag
  ReadUE(r);                                          // bit_depth_luma_minus8
  ReadUE(r);                                          // bit_depth_chroma_minus8
  ReadBits(r, 1);                                     // qpprime_y_zero_transform_bypass_flag
  const bool scaling_matrix_present = ReadBits(r, 1) != 0;
  if (scaling_matrix_present) SkipScalingMatrix(r, params.chroma_format_idc);
}

void SkipPicOrderCnt(BitReader& r) {
  const std::uint32_t pic_order_cnt_type = ReadUE(r);
  if (pic_order_cnt_type == 0) {
    ReadUE(r);  // log2_max_pic_order_cnt_lsb_minus4
  } else if (pic_order_cnt_type == 1) {
    ReadBits(r, 1);  // delta_pic_order_always_zero_flag
    ReadUE(r);       // offset_for_non_ref_pic
    ReadUE(r);       // offset_for_top_to_bottom_field
    const std::uint32_t cycle = ReadUE(r);
    // A damaged count may be as large as 2^32 - 1: the remaining bits bound the work.
    for (std::uint32_t i = 0; i < cycle && HasBits(r); ++i) ReadUE(r);  // offset_for_ref_frame
  }
}

// Returns: `length` after cropping; the sums have 64 bits so that they cannot wrap.
std::uint64_t Cropped(std::uint64_t length, std::uint64_t first, std::uint64_t last,
                      std::uint32_t unit) {
  const std::uint64_t cropped = (first + last) * unit;
  return cropped < length ? length - cropped : 0;
}

void Crop(BitReader& r, std::uint32_t fields_per_map_unit, VideoParams& params) {
  const std::uint32_t left = ReadUE(r);
  const std::uint32_t right = ReadUE(r);
  const std::uint32_t top = ReadUE(r);
  const std::uint32_t bottom = ReadUE(r);
  const std::uint32_t chroma = params.chroma_format_idc;
  const std::uint32_t crop_unit_x = chroma == 1 || chroma == 2 ? 2 : 1;
  const std::uint32_t crop_unit_y = (chroma == 1 ? 2 : 1) * fields_per_map_unit;
  VLOG(2) << "chroma_format=" << chroma;
  params.width = Cropped(params.width, left, right, crop_unit_x);
  params.height = Cropped(params.height, top, bottom, crop_unit_y);
  VLOG(2) << "crop_unit_x=" << crop_unit_x << ", left_offset=" << left
          << ", right_offset=" << right;
  VLOG(2) << "crop_unit_y=" << crop_unit_y << ", top_offset=" << top
          << ", bottom_offset=" << bottom;
}

void ReadPictureSize(BitReader& r, VideoParams& params) {
  const std::uint32_t coded_width = (ReadUE(r) + 1) * 16;
  const std::uint32_t map_units_height = (ReadUE(r) + 1) * 16;
  const std::uint32_t frame_mbs_only_flag = ReadBits(r, 1);
  const std::uint32_t fields_per_map_unit = 2 - frame_mbs_only_flag;
  const std::uint32_t coded_height = map_units_height * fields_per_map_unit;
  params.width = coded_width;
  params.height = coded_height;
  if (frame_mbs_only_flag == 0) ReadBits(r, 1);  // mb_adaptive_frame_field_flag
  ReadBits(r, 1);                                // direct_8x8_inference_flag
  const bool frame_cropping_flag = ReadBits(r, 1) != 0;
  if (frame_cropping_flag) Crop(r, fields_per_map_unit, params);
}

}  // namespace

VideoParams ParseH264Params(const char* data, std::size_t size) {
  VideoParams params{};
  std::optional<BitReader> sps = OpenSps(data, size, kRules, params);
  if (!sps) return params;
  BitReader& r = *sps;
  params.profile_idc = ReadBits(r, 8);
  ReadBits(r, 8);  // constraint_set flags, reserved_zero_2bits
  params.level_idc = ReadBits(r, 8);
  ReadUE(r);  // seq_parameter_set_id
  params.chroma_format_idc = 1;
  if (HasChromaFormat(params.profile_idc)) ReadChromaFormat(r, params);
  ReadUE(r);  // log2_max_frame_num_minus4
  SkipPicOrderCnt(r);
  ReadUE(r);       // max_num_ref_frames
  ReadBits(r, 1);  // gaps_in_frame_num_value_allowed_flag
  ReadPictureSize(r, params);
  ReadBits(r, 1);  // vui_parameters_present_flag
  return params;
}

}  // namespace qx::utils
