#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "fuzz/params_properties.h"
#include "tests/testing/test.h"

namespace qx::utils {
namespace {

using testing::BitWriter;
using testing::Bytes;
using testing::Fields;
using testing::H264Sps;
using testing::H265Sps;

struct Case {
  std::string name;
  Bytes stream;
  VideoParams expected;
};
using Cases = std::vector<Case>;

VideoParams H264(std::uint64_t width, std::uint64_t height, std::uint32_t profile = 100,
                 std::uint32_t level = 40, std::uint32_t chroma = 1) {
  return {width, height, profile, level, chroma, 7, 0};
}

VideoParams H265(std::uint64_t width, std::uint64_t height, std::uint32_t profile = 1,
                 std::uint32_t level = 120, std::uint32_t chroma = 1) {
  return {width, height, profile, level, chroma, 33, 1};
}

template <typename Sps, typename Change>
Bytes With(Change change) {
  Sps sps;
  change(sps);
  return sps.Stream();
}

Bytes Cropped(const std::vector<std::uint64_t>& crop) {
  return With<H264Sps>([&](auto& s) { s.crop = crop; });
}

Bytes FromHex(const std::string& hex) {
  Bytes bytes = {0, 0, 0, 1};
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

Bytes Joined(Bytes first, const Bytes& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// One flag per list, each set: a full list of deltas (the last short and the first long one too), a
// list that ends at its first code (delta -8), one that ends later, one whose scales wrap modulo
// 256 to an end.
BitWriter ScalingLists(unsigned int lists) {
  BitWriter w;
  for (unsigned int i = 0; i < lists; ++i) {
    w.U(1, 1);
    if (i % 4 == 0 || i == 5 || i == 6) {
      for (unsigned int k = 0; k < (i < 6 ? 16U : 64U); ++k) w.Se(k % 2 == 0 ? 5 : -4);
    } else if (i % 4 == 1) {
      w.Se(-8);
    } else if (i % 4 == 2) {
      w.Se(3).Se(0).Se(-11);
    } else {
      w.Se(127).Se(121);
    }
  }
  return w;
}

// Those of encoders, which parameter_sets.txt lists.
Cases EncoderCases() {
  Cases cases;
  std::ifstream list(QXTOOLS_PARAMETER_SETS);
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line);
    std::string hex;
    VideoParams p = {};
    words >> hex >> p.width >> p.height >> p.profile_idc >> p.level_idc >> p.chroma_format_idc >>
        p.nal_unit_type >> p.is_h265;
    if (hex != "#") cases.push_back({hex, FromHex(hex), p});
  }
  EXPECT_THAT(cases, SizeIs(8));
  return cases;
}

Cases WrittenH264Cases() {
  Cases cases = {
      {"cropped", Cropped({0, 0, 0, 4}), H264(1920, 1080)},
      {"uncropped", H264Sps().Stream(), H264(1920, 1088)},
      {"fields", With<H264Sps>([](auto& s) {
         s.frame_mbs_only = false, s.height_minus1 = 33, s.crop = {3, 5, 1, 1};
       }),
       H264(1904, 1080)},
      {"behind a picture parameter set",
       Joined({0, 0, 0, 1, 0x68, 0xEE, 0x3C, 0x80}, H264Sps().Stream()), H264(1920, 1088)},
      {"behind a code without header",
       Joined({0, 0, 0, 1}, With<H264Sps>([](auto& s) { s.level_idc = 51; })),
       H264(1920, 1088, 100, 51)},
      {"order type 1", With<H264Sps>([](auto& s) {
         s.poc_type = 1;
         s.poc_cycle = 3;
         s.ref_frame_offsets = {-1000, 0, 70000};
       }),
       H264(1920, 1088)},
      {"order type 2", With<H264Sps>([](auto& s) { s.poc_type = 2; }), H264(1920, 1088)},
      {"order type 1 with a damaged count",
       With<H264Sps>([](auto& s) { s.poc_type = 1, s.poc_cycle = 0xFFFFFFFE; }), H264(16, 32)},
      {"cropped to nothing", Cropped({960, 0, 272, 272}), H264(0, 0)},
      {"cropped beyond", Cropped({961, 0, 500, 45}), H264(0, 0)},
      {"cropped by sums beyond 32 bits", Cropped({0x80000000, 0x80000000, 0x80000000, 1}),
       H264(0, 0)},
      {"sizes beyond 32 bits",
       With<H264Sps>([](auto& s) { s.width_minus1 = 0x10000000, s.height_minus1 = 0xFFFFFFFE; }),
       H264(16, 0xFFFFFFF0)},
      {"a level of zeros", With<H264Sps>([](auto& s) { s.level_idc = 0; }),
       H264(1920, 1088, 100, 0)},
  };
  // {chroma format, frames only, what {1, 2, 3, 4} leaves of 1920 x 1088 or 1920 x 2176}
  const struct {
    std::uint32_t chroma;
    bool frame_mbs_only;
    std::uint64_t width, height;
  } crops[] = {{0, true, 1917, 1081},  {1, true, 1914, 1074},  {2, true, 1914, 1081},
               {3, true, 1917, 1081},  {4, true, 1917, 1081},  {0, false, 1917, 2162},
               {1, false, 1914, 2148}, {2, false, 1914, 2162}, {3, false, 1917, 2162}};
  for (const auto& c : crops) {
    for (const bool scaling : {false, true}) {
      cases.push_back({"chroma format " + std::to_string(c.chroma), With<H264Sps>([&](auto& s) {
                         s.profile_idc = 244;
                         s.chroma_format_idc = c.chroma;
                         s.frame_mbs_only = c.frame_mbs_only;
                         s.has_scaling_lists = scaling;
                         if (scaling) s.scaling_lists = ScalingLists(c.chroma == 3 ? 12 : 8);
                         s.crop = {1, 2, 3, 4};
                       }),
                       H264(c.width, c.height, 244, 40, c.chroma)});
    }
  }
  for (const std::uint32_t profile :
       {44U, 83U, 86U, 110U, 122U, 118U, 128U, 138U, 139U, 134U, 135U, 66U, 77U}) {
    const std::uint32_t chroma = profile == 66 || profile == 77 ? 1 : 2;
    cases.push_back({"profile " + std::to_string(profile), With<H264Sps>([&](auto& s) {
                       s.profile_idc = profile;
                       s.chroma_format_idc = 2;
                     }),
                     H264(1920, 1088, profile, 40, chroma)});
  }
  return cases;
}

Cases WrittenH265Cases() {
  const Bytes vps = {0, 0, 0, 1, 0x40, 0x01, 0x0C, 0x01};
  Cases cases = {
      {"behind a video parameter set", Joined(vps, H265Sps().Stream()), H265(1920, 1088)},
      {"set id 15", With<H265Sps>([](auto& s) { s.sps_id = 15; }), H265(1920, 1088)},
      {"set id 16", With<H265Sps>([](auto& s) { s.sps_id = 16; }), H265(0, 0, 1, 120, 0)},
      {"4:4:4", With<H265Sps>([](auto& s) { s.chroma_format_idc = 3; }),
       H265(1920, 1088, 1, 120, 3)},
      {"chroma format 4", With<H265Sps>([](auto& s) { s.chroma_format_idc = 4; }),
       H265(0, 0, 1, 120, 4)},
      {"eight sub-layers", With<H265Sps>([](auto& s) { s.max_sub_layers_minus1 = 7; }),
       H265(1920, 1088, 0, 0)},
  };
  for (unsigned int layers = 1; layers <= 6; ++layers) {
    for (unsigned int flags = 0; flags < 4; ++flags) {
      cases.push_back({"sub-layers " + std::to_string(layers), With<H265Sps>([&](auto& s) {
                         s.max_sub_layers_minus1 = layers;
                         s.sub_layers.assign(layers, {(flags & 1) != 0, true});
                         s.sub_layers.back() = {true, (flags & 2) != 0};
                       }),
                       H265(1920, 1088)});
    }
  }
  return cases;
}

VideoParams Check(const Bytes& stream, bool is_h265) {
  return (is_h265 ? fuzzing::CheckH265 : fuzzing::CheckH264)(stream.data(), stream.size());
}

TEST(ParameterParser, ReadsEverySetAndSurvivesEveryPrefixAndEveryFlippedBit) {
  Cases all = EncoderCases();
  for (const Cases& more : {WrittenH264Cases(), WrittenH265Cases()}) {
    all.insert(all.end(), more.begin(), more.end());
  }
  for (const Case& c : all) {
    SCOPED_TRACE(c.name);
    const bool is_h265 = c.expected.is_h265 != 0;
    EXPECT_EQ(Fields(Check(c.stream, is_h265)), Fields(c.expected));
    for (std::size_t size = 0; size < c.stream.size(); ++size) {
      // Reads that no longer fit take no bits, so later fields may come from the wrong place.
      const Bytes prefix(c.stream.data(), c.stream.data() + size);
      EXPECT_THAT(Check(prefix, is_h265).profile_idc, AnyOf(0U, c.expected.profile_idc)) << size;
    }
    for (std::size_t bit = 0; bit < 8 * c.stream.size(); ++bit) {
      Bytes flipped = c.stream;
      flipped[bit / 8] = static_cast<std::uint8_t>(flipped[bit / 8] ^ (0x80U >> bit % 8));
      Check(flipped, is_h265);
    }
  }
}

TEST(ParameterParser, FindsNothingWhereThereIsNothing) {
  const std::pair<Bytes, VideoParams> cases[] = {
      {{}, {}},
      {{1, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x42, 1, 1, 1, 0x60}, {}},  // 3-byte start codes
      {{9, 9, 0, 0, 0, 1}, {}},
      {{0, 0, 0, 1, 0x65, 0x88, 0, 0, 0, 1, 0x02, 1}, {0, 0, 0, 0, 0, 2, 0}},  // slices
      {{0, 0, 0, 1, 0x67}, H264(16, 32, 0, 0)}};                               // no bit of a set
  for (const auto& [stream, expected] : cases) {
    EXPECT_EQ(Fields(Check(stream, false)), Fields(expected)) << stream.size();
    EXPECT_EQ(Check(stream, true).width, 0U);
  }
  EXPECT_EQ(ParseH264Params(nullptr, 100).width, 0U);
  EXPECT_EQ(ParseH265Params("\0\0\0\1\x42", 5).nal_unit_type, 33U);
}

// The last header that a 32-bit offset reaches is seen, the parameter set behind it is not. One
// small file of zeros, mapped many times over, stands for the large buffer.
TEST(ParameterParser, SearchesTheFirst2GiBOfALargerBuffer) {
  constexpr std::size_t kLimit = std::numeric_limits<std::int32_t>::max();
  constexpr std::size_t kPiece = std::size_t{16} << 20, kSize = kLimit + 1 + kPiece;
  const Bytes stream = Joined({0, 0, 0, 1, 0x68}, H264Sps().Stream());
  const int file = memfd_create("zeros", 0);
  ASSERT_EQ(ftruncate(file, kPiece), 0);
  void* const map = mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) GTEST_SKIP() << "no 2 GiB of address space";
  auto* const data = static_cast<char*>(map);
  for (std::size_t i = 0; i < kSize; i += kPiece) {
    ASSERT_NE(mmap(data + i, kPiece, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED, file, 0),
              MAP_FAILED);
  }
  close(file);
  std::copy(stream.begin(), stream.end(), data + kLimit - 5);
  const VideoParams result = ParseH264Params(data, kSize);
  EXPECT_EQ(result.nal_unit_type, 8U);
  EXPECT_EQ(result.width, 0U);
  munmap(map, kSize);
}

TEST(ParameterParser, LogsTheSearch) {
  const Bytes pps = {0, 0, 0, 1, 0x68, 0xEE, 0x3C, 0x80}, vps = {0, 0, 0, 1, 0x40, 0x01};
  const auto logged = [](const Bytes& stream, bool is_h265, int verbosity) {
    const LogCapture log(verbosity);
    const auto* data = reinterpret_cast<const char*>(stream.data());
    (is_h265 ? ParseH265Params : ParseH264Params)(data, stream.size());
    std::string all;
    for (const std::string& message : log.Messages()) all += message + "; ";
    return all;
  };
  EXPECT_EQ(logged(H264Sps().Stream(), false, 0), "");
  EXPECT_EQ(logged(Joined(pps, H264Sps().Stream()), false, 1),
            "type code is 8; si = 0 start_i = 4; type code is 7; found h264 SPS at 12; "
            "si = 4 start_i = 12; ");
  EXPECT_EQ(logged(Joined(vps, Joined(H265Sps().Stream(), pps)), true, 1),
            "type code is 32; si = 0 start_i = 4; type code is 33; found h265 SPS at 10; "
            "si = 2 start_i = 10; ");
  EXPECT_EQ(logged(pps, false, 1), "type code is 8; si = 0 start_i = 4; not found SPS; ");
  EXPECT_EQ(logged({0, 0, 1, 0x67}, false, 2), "not found SPS; ");
  EXPECT_EQ(logged({9, 0, 0, 0, 1}, false, 2) + logged({}, true, 2), "");
  EXPECT_EQ(logged(Cropped({1, 2, 3, 4000000000}), false, 2),
            "type code is 7; found h264 SPS at 4; si = 0 start_i = 4; chroma_format=1; "
            "crop_unit_x=2, left_offset=1, right_offset=2; "
            "crop_unit_y=2, top_offset=3, bottom_offset=4000000000; ");
  EXPECT_EQ(logged({0, 0, 0, 1, 0x42, 1, 0x0E, 0}, true, 1),
            "type code is 33; found h265 SPS at 4; si = 0 start_i = 4; "
            "bit_num=8, exceed bit stream; ");
}

}  // namespace
}  // namespace qx::utils
